#include "kel/features/geopackage_writer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#define GEOS_USE_ONLY_R_API
#include <geos_c.h>

#include "features/feature_store.h"
#include "kel/core/atomic_file.h"
#include "kel/core/text.h"
#include "support/log_capture.h"

namespace kel {
namespace {

std::wstring W(const test::fs::path& p) { return Utf8String2WString(p.string()); }

// Copies every class of `from` into a new GeoPackage at `to`.
bool Export(const std::wstring& from, const std::wstring& to) {
  auto source = FeatureSource::Open(from);
  auto writer = GeoPackageWriter::Create(to);
  if (!source || !writer) return false;
  for (const FeatureClassDefinition& c : source->GetClasses()) {
    auto reader = source->Select(c.name, nullptr);
    if (!reader || !writer->AddClass(reader->definition())) return false;
    while (reader->ReadNext())
      if (!writer->Write(c.name, reader->feature())) return false;
  }
  return writer->Commit();
}

// The same features, attribute for attribute and shape for shape.
void ExpectSameFeatures(const std::wstring& a, const std::wstring& b, const std::wstring& className) {
  auto sa = FeatureSource::Open(a), sb = FeatureSource::Open(b);
  ASSERT_TRUE(sa && sb);
  auto ra = sa->Select(className, nullptr), rb = sb->Select(className, nullptr);
  ASSERT_TRUE(ra && rb);
  GeosContextPtr ctx = MakeGeosContext();
  std::size_t n = 0;
  while (ra->ReadNext()) {
    ASSERT_TRUE(rb->ReadNext());
    EXPECT_EQ(ra->feature().id, rb->feature().id);
    EXPECT_TRUE(ra->attributes() == rb->attributes()) << ra->feature().id;
    const auto& ga = ra->feature().geometry;
    const auto& gb = rb->feature().geometry;
    ASSERT_EQ(ga == nullptr, gb == nullptr) << ra->feature().id;
    if (ga) {
      EXPECT_EQ(ga->geometryType(), gb->geometryType());
      EXPECT_EQ(ga->Is3D(), gb->Is3D());
      GeosGeometryPtr x = ga->toGeosGeometry(ctx), y = gb->toGeosGeometry(ctx);
      ASSERT_TRUE(x && y);
      EXPECT_EQ(GEOSEqualsExact_r(ctx.get(), x.get(), y.get(), 0.0), 1) << ra->feature().id;
    }
    ++n;
  }
  EXPECT_FALSE(rb->ReadNext());
  EXPECT_GT(n, 0u);
}

TEST(GeoPackageWriter, ExportsComeBackFeatureForFeature) {
  const test::fs::path dir = test::TempDir("gpkg_writer");
  const auto buildings = test::MakeBuildings(31, 120);
  ASSERT_TRUE(test::WriteGeoPackage(dir / "in.gpkg", "buildings", buildings));
  ASSERT_TRUE(Export(W(dir / "in.gpkg"), W(dir / "out.gpkg")));
  ExpectSameFeatures(W(dir / "in.gpkg"), W(dir / "out.gpkg"), L"buildings");

  // Every geometry kind, with Z and without, written by GDAL in a GeoJSON
  // (dates and booleans too), through our reader and writer and back.
  const char* const wkts[] = {
      "POINT Z (1 2 3)", "MULTIPOINT ((0 0), (5 5))", "LINESTRING Z (0 0 1, 10 0 2, 10 10 3)",
      "MULTILINESTRING ((0 0, 1 1), (2 2, 3 3, 4 2))",
      "POLYGON ((0 0, 10 0, 10 10, 0 10, 0 0), (2 2, 2 4, 4 4, 4 2, 2 2))",
      "MULTIPOLYGON (((0 0, 1 0, 1 1, 0 0)), ((5 5, 6 5, 6 6, 5 5)))",
      "GEOMETRYCOLLECTION (POINT (1 1), LINESTRING (0 0, 2 2), POLYGON ((3 3, 4 3, 4 4, 3 3)))"};
  {
    GDALDataset* ds = GetGDALDriverManager()->GetDriverByName("GeoJSON")->Create(
        (dir / "kinds.geojson").c_str(), 0, 0, 0, GDT_Unknown, nullptr);
    ASSERT_NE(ds, nullptr);
    OGRLayer* layer = ds->CreateLayer("kinds", nullptr, wkbUnknown, nullptr);
    OGRFieldDefn day("day", OFTDate), at("at", OFTDateTime), flag("flag", OFTInteger);
    flag.SetSubType(OFSTBoolean);
    for (OGRFieldDefn* f : {&day, &at, &flag}) ASSERT_EQ(layer->CreateField(f), OGRERR_NONE);
    int k = 0;
    for (const char* wkt : wkts) {
      OGRFeature* f = OGRFeature::CreateFeature(layer->GetLayerDefn());
      OGRGeometry* g = nullptr;
      OGRGeometryFactory::createFromWkt(wkt, nullptr, &g);
      f->SetGeometryDirectly(g);
      f->SetField("day", 2020 + k, 2, 29 - k);
      f->SetField("at", 2024, 12, 31, 23, 59, 58.5f, 100);
      f->SetField("flag", k % 2);
      ASSERT_EQ(layer->CreateFeature(f), OGRERR_NONE);
      OGRFeature::DestroyFeature(f);
      ++k;
    }
    GDALClose(ds);
  }
  ASSERT_TRUE(Export(W(dir / "kinds.geojson"), W(dir / "kinds.gpkg")));
  ExpectSameFeatures(W(dir / "kinds.geojson"), W(dir / "kinds.gpkg"), L"kinds");
  test::fs::remove_all(dir);
}

TEST(GeoPackageWriter, NothingAppearsUntilCommit) {
  test::LogCapture log;
  const test::fs::path dir = test::TempDir("gpkg_atomic");
  const test::fs::path target = dir / "export.gpkg";
  const auto buildings = test::MakeBuildings(5, 10);
  ASSERT_TRUE(test::WriteGeoPackage(dir / "in.gpkg", "buildings", buildings));
  auto source = FeatureSource::Open(W(dir / "in.gpkg"));
  ASSERT_NE(source, nullptr);
  auto fill = [&](GeoPackageWriter& w) {
    auto reader = source->Select(L"buildings", nullptr);
    ASSERT_TRUE(reader && w.AddClass(reader->definition()));
    while (reader->ReadNext()) ASSERT_TRUE(w.Write(L"buildings", reader->feature()));
  };
  auto names = [&] {
    std::vector<std::string> out;
    for (const auto& e : test::fs::directory_iterator(dir)) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
  };

  test::fs::copy_file(dir / "in.gpkg", target);  // an older export stands there
  const auto before = test::fs::file_size(target);
  {
    auto writer = GeoPackageWriter::Create(W(target));
    ASSERT_NE(writer, nullptr);
    fill(*writer);
    // Abandoned without Commit: old file as it was, no temporary left.
  }
  EXPECT_EQ(test::fs::file_size(target), before);
  EXPECT_EQ(names(), (std::vector<std::string>{"export.gpkg", "in.gpkg"}));

  auto writer = GeoPackageWriter::Create(W(target));
  ASSERT_NE(writer, nullptr);
  fill(*writer);
  Feature duplicate;
  duplicate.id = 1;
  EXPECT_FALSE(writer->Write(L"buildings", duplicate));  // ids are kept, so two 1s fail
  EXPECT_FALSE(writer->Write(L"nope", duplicate));
  EXPECT_TRUE(log.contains("Cannot write to class 'nope': it was not added"));
  FeatureClassDefinition again;
  again.name = L"buildings";
  EXPECT_FALSE(writer->AddClass(again));
  ASSERT_TRUE(writer->Commit());
  EXPECT_FALSE(writer->Commit());
  EXPECT_EQ(names(), (std::vector<std::string>{"export.gpkg", "in.gpkg"}));
  ExpectSameFeatures(W(dir / "in.gpkg"), W(target), L"buildings");

  EXPECT_EQ(GeoPackageWriter::Create(W(dir / "missing" / "x.gpkg")), nullptr);
  EXPECT_TRUE(log.contains("Cannot create GeoPackage"));
  test::fs::remove_all(dir);
}

}  // namespace
}  // namespace kel
