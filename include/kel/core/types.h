// Small value types shared by every area: fixed-size vectors, axis-aligned
// boxes, 4x4 matrices and byte colours. Plain values: copy them freely; none
// of them allocates, logs or throws.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace kel {

// N components of T. Accessors x() to w() exist only where N is large enough.
template <std::size_t N, typename T>
struct Vec {
  std::array<T, N> v{};

  constexpr Vec() = default;
  template <typename... A,
            typename = std::enable_if_t<sizeof...(A) == N && (std::is_convertible_v<A, T> && ...)>>
  constexpr Vec(A... a) : v{static_cast<T>(a)...} {}

  constexpr T& operator[](std::size_t i) { return v[i]; }
  constexpr const T& operator[](std::size_t i) const { return v[i]; }

  constexpr T& x() { return v[0]; }
  constexpr const T& x() const { return v[0]; }
  constexpr T& y() requires(N >= 2) { return v[1]; }
  constexpr const T& y() const requires(N >= 2) { return v[1]; }
  constexpr T& z() requires(N >= 3) { return v[2]; }
  constexpr const T& z() const requires(N >= 3) { return v[2]; }
  constexpr T& w() requires(N >= 4) { return v[3]; }
  constexpr const T& w() const requires(N >= 4) { return v[3]; }

  friend constexpr bool operator==(const Vec&, const Vec&) = default;

  friend constexpr Vec operator+(Vec a, const Vec& b) {
    for (std::size_t i = 0; i < N; ++i) a.v[i] += b.v[i];
    return a;
  }
  friend constexpr Vec operator-(Vec a, const Vec& b) {
    for (std::size_t i = 0; i < N; ++i) a.v[i] -= b.v[i];
    return a;
  }
  friend constexpr Vec operator*(Vec a, T s) {
    for (std::size_t i = 0; i < N; ++i) a.v[i] *= s;
    return a;
  }
};

using Vec2d = Vec<2, double>;
using Vec3d = Vec<3, double>;

// Axis-aligned box, min corner then max corner. A default box is empty
// (min above max in every axis) so that the first extend() sets both corners.
template <std::size_t N, typename T>
struct BBox {
  Vec<N, T> min;
  Vec<N, T> max;

  static constexpr T Highest() {
    if constexpr (std::numeric_limits<T>::has_infinity) return std::numeric_limits<T>::infinity();
    else return std::numeric_limits<T>::max();
  }
  static constexpr T Lowest() {
    if constexpr (std::numeric_limits<T>::has_infinity) return -std::numeric_limits<T>::infinity();
    else return std::numeric_limits<T>::lowest();
  }

  constexpr BBox() {
    for (std::size_t i = 0; i < N; ++i) {
      min[i] = Highest();
      max[i] = Lowest();
    }
  }
  constexpr BBox(const Vec<N, T>& lo, const Vec<N, T>& hi) : min(lo), max(hi) {}

  // True while nothing has been added (or the box was built inverted).
  constexpr bool isEmpty() const {
    for (std::size_t i = 0; i < N; ++i)
      if (min[i] > max[i]) return true;
    return false;
  }
  constexpr void extend(const Vec<N, T>& p) {
    for (std::size_t i = 0; i < N; ++i) {
      if (p[i] < min[i]) min[i] = p[i];
      if (p[i] > max[i]) max[i] = p[i];
    }
  }
  constexpr void extend(const BBox& b) {
    if (b.isEmpty()) return;
    extend(b.min);
    extend(b.max);
  }
  // Inclusive at both ends.
  constexpr bool contains(const Vec<N, T>& p) const {
    for (std::size_t i = 0; i < N; ++i)
      if (p[i] < min[i] || p[i] > max[i]) return false;
    return true;
  }

  friend constexpr bool operator==(const BBox&, const BBox&) = default;
};

// N by N matrix stored column by column: row r, column c at index c*N + r.
template <std::size_t N, typename T>
struct Mat {
  std::array<T, N * N> m{};

  static constexpr Mat Identity() {
    Mat r;
    for (std::size_t i = 0; i < N; ++i) r.m[i * N + i] = T(1);
    return r;
  }

  constexpr T& operator[](std::size_t i) { return m[i]; }
  constexpr const T& operator[](std::size_t i) const { return m[i]; }
  constexpr T& operator()(std::size_t row, std::size_t col) { return m[col * N + row]; }
  constexpr const T& operator()(std::size_t row, std::size_t col) const { return m[col * N + row]; }

  friend constexpr Mat operator*(const Mat& a, const Mat& b) {
    Mat r;
    for (std::size_t c = 0; c < N; ++c)
      for (std::size_t row = 0; row < N; ++row) {
        T s{};
        for (std::size_t k = 0; k < N; ++k) s += a(row, k) * b(k, c);
        r(row, c) = s;
      }
    return r;
  }
  friend constexpr bool operator==(const Mat&, const Mat&) = default;
};

using Mat4d = Mat<4, double>;

// Transforms the point as the column (x, y, z, 1) and divides by the resulting w.
constexpr Vec3d TransformPoint(const Mat4d& m, const Vec3d& p) {
  double out[4];
  for (std::size_t r = 0; r < 4; ++r)
    out[r] = m(r, 0) * p[0] + m(r, 1) * p[1] + m(r, 2) * p[2] + m(r, 3);
  return Vec3d(out[0] / out[3], out[1] / out[3], out[2] / out[3]);
}

// Four bytes in the order red, green, blue, alpha.
struct Color4B {
  std::uint8_t r = 0;
  std::uint8_t g = 0;
  std::uint8_t b = 0;
  std::uint8_t a = 0;

  friend constexpr bool operator==(const Color4B&, const Color4B&) = default;
};
static_assert(sizeof(Color4B) == 4);

}  // namespace kel
