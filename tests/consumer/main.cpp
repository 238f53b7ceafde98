// Builds against the installed kel package only.
#include <kel/kel.h>

int main() {
  const kel::TileCoords tile(3, -1, -2);
  const kel::TileCoords parent = tile.getParent();
  if (parent != kel::TileCoords(2, -1, -1)) return 1;
  try {
    throw kel::wexception(L"consumer");
  } catch (const kel::wexception& e) {
    return std::wstring(e.message()) == L"consumer" ? 0 : 1;
  }
}
