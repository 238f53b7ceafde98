#include "srs/detail/proj_crs.h"

#include <cctype>
#include <cstring>

#include "kel/core/text.h"
#include "srs/detail/code_table.h"

namespace kel::detail {
namespace {

bool IsAuthChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }
bool IsCodeChar(char c) { return IsAuthChar(c) || c == '.' || c == '-'; }

// "AUTH:CODE" split at its one colon; false for any other shape.
bool SplitAuthCode(const std::string& s, std::string& auth, std::string& code) {
  const auto colon = s.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == s.size()) return false;
  auth = s.substr(0, colon);
  code = s.substr(colon + 1);
  if (!std::isalpha(static_cast<unsigned char>(auth[0]))) return false;
  for (char c : auth)
    if (!IsAuthChar(c)) return false;
  for (char c : code)
    if (!IsCodeChar(c)) return false;
  return true;
}

// WKT ("KEYWORD[" or "KEYWORD("), PROJJSON ("{") or an OGC URN ("urn:").
bool LooksLikeDefinition(const std::string& text, std::size_t first) {
  if (text[first] == '{') return true;
  if (text.size() - first >= 4) {
    std::string head = text.substr(first, 4);
    for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (head == "urn:") return true;
  }
  std::size_t i = first;
  while (i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '_')) ++i;
  if (i == first) return false;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\r' || text[i] == '\n')) ++i;
  return i < text.size() && (text[i] == '[' || text[i] == '(');
}

PjPtr FromDatabase(PJ_CONTEXT* ctx, const std::string& auth, const std::string& code) {
  return PjPtr(proj_create_from_database(ctx, auth.c_str(), code.c_str(), PJ_CATEGORY_CRS, 0, nullptr));
}

std::wstring CodeOfId(const char* auth, const char* code) {
  if (auth == nullptr || code == nullptr) return {};
  if (std::strcmp(auth, "EPSG") == 0) {
    char* end = nullptr;
    const long n = std::strtol(code, &end, 10);
    if (end != code && *end == '\0') {
      std::wstring library = LibraryCodeOfEpsg(static_cast<int>(n));
      if (!library.empty()) return library;
    }
  }
  return FromProj(auth) + L":" + FromProj(code);
}

}  // namespace

PjPtr CrsFromCode(PJ_CONTEXT* ctx, const std::wstring& s) {
  if (const char* wkt = NonEarthWkt(s)) return PjPtr(proj_create(ctx, wkt));
  if (const int epsg = EpsgOfLibraryCode(s)) return FromDatabase(ctx, "EPSG", std::to_string(epsg));
  std::string auth, code;
  if (!SplitAuthCode(WString2Utf8String(s), auth, code)) return nullptr;
  PjPtr crs = FromDatabase(ctx, auth, code);
  if (!crs) {
    // The database spells authorities in capitals; users often do not.
    std::string upper = auth;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper != auth) crs = FromDatabase(ctx, upper, code);
  }
  return crs;
}

PjPtr CrsFromDefinition(PJ_CONTEXT* ctx, const std::wstring& s, std::wstring& error) {
  std::string text = WString2Utf8String(s);
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) {
    error = L"empty definition";
    return nullptr;
  }
  const bool projString = text[first] == '+' || text.compare(first, 5, "proj=") == 0;
  if (!projString && !LooksLikeDefinition(text, first)) {
    // PROJ would also look the text up as an object name in its database:
    // slow (a second for a miss) and ambiguous, so names are not taken.
    error = L"neither a known code nor a WKT, PROJJSON or PROJ definition";
    return nullptr;
  }
  if (projString && text.find("type=crs") == std::string::npos) text += " +type=crs";
  PjPtr crs(proj_create(ctx, text.c_str()));
  if (!crs) {
    error = TakeProjError(ctx);
    return nullptr;
  }
  if (!proj_is_crs(crs.get())) {
    error = L"not a coordinate reference system: " + FromProj(proj_get_name(crs.get()));
    return nullptr;
  }
  // PROJ reads some definitions whose WKT it then cannot read back (an axis
  // without a unit, say). Such a system could not be stored or passed on.
  if (const char* wkt = WriteWkt(ctx, crs.get())) {
    if (!PjPtr(proj_create(ctx, wkt))) {
      error = L"its WKT does not read back: " + TakeProjError(ctx);
      return nullptr;
    }
  }
  ClearProjError(ctx);  // a system PROJ cannot write as WKT is still a system
  return crs;
}

const char* WriteWkt(PJ_CONTEXT* ctx, PJ* crs) {
  const char* options[] = {"MULTILINE=NO", nullptr};
  return proj_as_wkt(ctx, crs, PJ_WKT2_2019, options);
}

PjPtr MakeCrs(PJ_CONTEXT* ctx, const std::wstring& s, bool& fromDefinition, std::wstring& error) {
  ClearProjError(ctx);
  fromDefinition = false;
  if (PjPtr crs = CrsFromCode(ctx, s)) return crs;
  const std::wstring codeError = TakeProjError(ctx, L"");  // "AUTH:CODE" not in the database
  fromDefinition = true;
  PjPtr crs = CrsFromDefinition(ctx, s, error);
  if (!crs && !codeError.empty()) error = codeError;
  return crs;
}

std::wstring OwnCode(PJ_CONTEXT* ctx, PJ* crs) {
  if (IsEngineeringCrs(ctx, crs)) {
    for (const wchar_t* code : kNonEarthCodes) {
      PjPtr ref(proj_create(ctx, NonEarthWkt(code)));
      if (ref && proj_is_equivalent_to_with_ctx(ctx, crs, ref.get(), PJ_COMP_EQUIVALENT)) return code;
    }
  }
  int* confidence = nullptr;
  PJ_OBJ_LIST* found = proj_identify(ctx, crs, nullptr, nullptr, &confidence);
  std::wstring best;
  if (found != nullptr) {
    const int n = proj_list_get_count(found);
    for (int i = 0; i < n && confidence[i] == 100; ++i) {
      PjPtr candidate(proj_list_get(ctx, found, i));
      if (!candidate) continue;
      const char* auth = proj_get_id_auth_name(candidate.get(), 0);
      std::wstring code = CodeOfId(auth, proj_get_id_code(candidate.get(), 0));
      if (code.empty()) continue;
      if (best.empty()) best = code;
      if (auth != nullptr && std::strcmp(auth, "EPSG") == 0) {
        best = code;
        break;
      }
    }
    proj_list_destroy(found);
  }
  proj_int_list_destroy(confidence);
  ClearProjError(ctx);  // a failed identification is an answer, not an error
  return best;
}

std::wstring OwnCodeOfStored(PJ_CONTEXT* ctx, PJ* crs, const std::wstring& code) {
  if (NonEarthWkt(code) != nullptr) return code;
  std::wstring id = CodeOfId(proj_get_id_auth_name(crs, 0), proj_get_id_code(crs, 0));
  return id.empty() ? OwnCode(ctx, crs) : id;
}

PjPtr HorizontalCrs(PJ_CONTEXT* ctx, PJ* crs) {
  switch (proj_get_type(crs)) {
    case PJ_TYPE_COMPOUND_CRS: return PjPtr(proj_crs_get_sub_crs(ctx, crs, 0));
    case PJ_TYPE_BOUND_CRS: return PjPtr(proj_get_source_crs(ctx, crs));
    default: return PjPtr(proj_clone(ctx, crs));
  }
}

bool IsGeographicType(PJ_TYPE t) { return t == PJ_TYPE_GEOGRAPHIC_2D_CRS || t == PJ_TYPE_GEOGRAPHIC_3D_CRS; }

bool IsGeographicCrs(PJ_CONTEXT* ctx, PJ* crs) {
  PjPtr h = HorizontalCrs(ctx, crs);
  return h && IsGeographicType(proj_get_type(h.get()));
}

bool IsEngineeringCrs(PJ_CONTEXT* ctx, PJ* crs) {
  PjPtr h = HorizontalCrs(ctx, crs);
  return h && proj_get_type(h.get()) == PJ_TYPE_ENGINEERING_CRS;
}

bool HorizontalUnit(PJ_CONTEXT* ctx, PJ* crs, std::wstring& name, double& toBase) {
  PjPtr h = HorizontalCrs(ctx, crs);
  if (!h) return false;
  PjPtr cs(proj_crs_get_coordinate_system(ctx, h.get()));
  if (!cs) return false;
  const char* unit = nullptr;
  if (!proj_cs_get_axis_info(ctx, cs.get(), 0, nullptr, nullptr, nullptr, &toBase, &unit, nullptr, nullptr))
    return false;
  name = FromProj(unit);
  return true;
}

}  // namespace kel::detail
