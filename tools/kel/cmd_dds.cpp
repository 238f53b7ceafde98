// kel dds: inspect DDS texture files.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"

namespace {

const char* FormatName(kel::IImage::Format f) {
  switch (f) {
    case kel::IImage::RGBA: return "RGBA";
    case kel::IImage::BGRA: return "BGRA";
    case kel::IImage::DXT1: return "DXT1";
    case kel::IImage::DXT5: return "DXT5";
    case kel::IImage::Float32: return "Float32";
    default: return "unsupported";
  }
}

const char* AlphaHintName(kel::ImageUtil::AlphaHint h) {
  switch (h) {
    case kel::ImageUtil::AlphaBlended: return "blended (partial alpha)";
    case kel::ImageUtil::AlphaOpaque: return "opaque";
    case kel::ImageUtil::AlphaTransparent: return "transparent";
    case kel::ImageUtil::AlphaMask: return "mask (0 and 255 only)";
    default: return "unknown";
  }
}

std::uint32_t Word(const unsigned char* p) {
  return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

// The raw header words as stored, whatever the library makes of them.
void PrintHeader(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char raw[128] = {};
  in.read(reinterpret_cast<char*>(raw), sizeof raw);
  if (in.gcount() < 128) {
    std::printf("header         (file shorter than 128 bytes)\n");
    return;
  }
  const unsigned char* h = raw + 4;
  auto field = [&](const char* name, int index) { std::printf("  %-20s 0x%08X (%u)\n", name, Word(h + 4 * index), Word(h + 4 * index)); };
  std::puts("header:");
  field("dwSize", 0);
  field("dwFlags", 1);
  field("dwHeight", 2);
  field("dwWidth", 3);
  field("dwPitchOrLinearSize", 4);
  field("dwDepth", 5);
  field("dwMipMapCount", 6);
  field("pf.dwSize", 18);
  field("pf.dwFlags", 19);
  const std::uint32_t cc = Word(h + 80);
  std::string fourcc;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>(cc >> (8 * i));
    fourcc += (c >= 32 && c < 127) ? c : '.';
  }
  std::printf("  %-20s 0x%08X \"%s\"\n", "pf.dwFourCC", cc, fourcc.c_str());
  field("pf.dwRGBBitCount", 21);
  field("pf.dwRBitMask", 22);
  field("pf.dwGBitMask", 23);
  field("pf.dwBBitMask", 24);
  field("pf.dwABitMask", 25);
  field("dwCaps", 26);
  field("dwCaps2", 27);
}

int RunInfo(const std::string& path) {
  const std::wstring wpath = kel::Utf8String2WString(path);
  std::ifstream probe(path, std::ios::binary | std::ios::ate);
  if (!probe) throw kel::wexception(L"cannot open " + wpath);
  const auto fileSize = static_cast<long long>(probe.tellg());
  char magic[4] = {};
  probe.seekg(0);
  probe.read(magic, 4);
  if (probe.gcount() != 4 || std::string(magic, 4) != "DDS ") throw kel::wexception(L"not a DDS file: " + wpath);
  std::printf("%-14s %s\n%-14s %lld bytes\n", "file", path.c_str(), "size", fileSize);
  const kel::IImage::Format format = kel::DDSFileUtil::GetFormat(wpath);
  std::printf("%-14s %s\n", "format", FormatName(format));
  std::printf("%-14s %s\n", "cube map", kel::DDSFileUtil::IsCubeMap(wpath) ? "yes" : "no");
  PrintHeader(path);
  auto image = kel::DDSFileUtil::LoadTexture(wpath);
  if (!image) throw kel::wexception(L"not a DDS file: " + wpath);
  std::printf("%-14s %llu x %llu\n", "image", static_cast<unsigned long long>(image->width()),
              static_cast<unsigned long long>(image->height()));
  std::printf("%-14s %llu\n", "mip levels", static_cast<unsigned long long>(image->mipLevels()));
  std::printf("%-14s %llu bytes\n", "pixel data", static_cast<unsigned long long>(image->sizeInBytes()));
  // DXT5 has no hint of its own: classify the decoded pixels instead.
  std::shared_ptr<const kel::IImage> probeImage = image;
  const char* how = "";
  if (image->format() == kel::IImage::DXT5) {
    probeImage = kel::ImageUtil::DecompressImage(image, kel::IImage::RGBA);
    how = " (of the decoded pixels)";
  }
  std::printf("%-14s %s%s\n", "alpha hint", AlphaHintName(kel::ImageUtil::ComputeAlphaHint(*probeImage)), how);
  return 0;
}

}  // namespace

void AddDdsCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "dds", "DDS texture files: header, format, alpha");
  auto file = std::make_shared<std::string>();
  CLI::App* cmd = tool::AddCommand(
      *group, "info", "size, format, mip levels, header fields and alpha hint of a DDS file",
      "Prints the file size, the pixel format the library recognises, the raw header\n"
      "words, the image size and mip levels, and whether alpha is opaque, a mask or\n"
      "blended. Unsupported formats and truncated files exit with code 1.",
      [file] { return RunInfo(*file); });
  cmd->add_option("FILE", *file, "DDS file")->required();
}
