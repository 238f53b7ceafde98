// The model settings file: where a model sits (an offset added to its
// local coordinates) and in which coordinate system (a code or WKT).
//
//   #ORB_ModelSettings_V1.0
//   Offset = 500000 5400000 0
//   SRS = EPSG:25832
//
// The first non-blank line must be the header. Then one "key = value" per
// line: spaces around key and value, blank lines and a UTF-8 byte order
// mark are tolerated; unknown keys are kept, in order, and written back.
// Reading and writing throw kel::wexception with the path and the reason;
// hostile files are safe to read.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kel/core/types.h"
#include "kel/export.h"

namespace kel {

class KEL_API PosFile {
public:
  static constexpr const wchar_t* Header = L"#ORB_ModelSettings_V1.0";

  bool hasOffset() const { return hasOffset_; }
  // (0, 0, 0) when the file has none.
  const Vec<3, double>& offset() const { return offset_; }
  void setOffset(const Vec<3, double>& offset);
  void clearOffset();
  // A coordinate-system code or WKT; empty when the file has none. Line
  // breaks inside WKT are written as spaces, which WKT does not mind.
  const std::wstring& srs() const { return srs_; }
  void setSrs(const std::wstring& srs) { srs_ = srs; }

  // Keys other than Offset and SRS, in file order.
  const std::vector<std::pair<std::wstring, std::wstring>>& extra() const { return extra_; }
  // Replaces the key's value, or adds the key at the end; "Offset" and "SRS"
  // (in any case) set those instead, parsing the offset (throws when bad).
  // Key and value are trimmed and line breaks become spaces, as written.
  void set(const std::wstring& key, const std::wstring& value);

  // Reads a file. Throws for an unreadable file, a missing or different
  // header, a line without "=", or an Offset that is not three numbers.
  static PosFile Load(const std::wstring& path);
  // The same from bytes already read; `source` names them in errors.
  static PosFile Parse(std::string_view utf8, const std::wstring& source);
  // The file's text: header, Offset, SRS, then the other keys.
  std::string format() const;
  // Writes through kel::AtomicFile: the old file stays whole if this fails.
  void save(const std::wstring& path) const;

private:
  Vec<3, double> offset_{0.0, 0.0, 0.0};
  bool hasOffset_ = false;
  std::wstring srs_;
  std::vector<std::pair<std::wstring, std::wstring>> extra_;
};

}  // namespace kel
