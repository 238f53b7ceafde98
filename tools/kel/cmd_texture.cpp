// kel texture: convert pictures to DDS textures (DXT1/DXT5/RGBA/BGRA, with
// optional mip chains) and DDS textures back to PNG for looking at them.
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kel/kel.h>

#include "commands.h"
#include "options.h"
#include "png_writer.h"
#include "progress_view.h"

namespace {

namespace fs = std::filesystem;
using kel::IImage;
using kel::ImageUtil;

enum class Target { Auto, Dxt1, Dxt5, Rgba, Bgra };

const std::map<std::string, Target> kTargets = {
    {"auto", Target::Auto}, {"dxt1", Target::Dxt1}, {"dxt5", Target::Dxt5},
    {"rgba", Target::Rgba}, {"bgra", Target::Bgra}};

std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Opaque pictures need no alpha: DXT1 halves the size of DXT5.
IImage::Format FormatFor(Target target, const IImage& image) {
  switch (target) {
    case Target::Dxt1: return IImage::DXT1;
    case Target::Dxt5: return IImage::DXT5;
    case Target::Rgba: return IImage::RGBA;
    case Target::Bgra: return IImage::BGRA;
    case Target::Auto: break;
  }
  return ImageUtil::ComputeAlphaHint(image) == ImageUtil::AlphaOpaque ? IImage::DXT1 : IImage::DXT5;
}

std::shared_ptr<IImage> LoadRgba(const std::string& path) {
  auto image = ImageUtil::Load(kel::Utf8String2WString(path), IImage::RGBA);
  if (!image) throw kel::wexception(L"Cannot convert to RGBA: " + kel::Utf8String2WString(path));
  return image;
}

// Padded to block-friendly sizes when the target is DXT (the codec expects
// multiples of 4), then encoded with or without a mip chain.
std::shared_ptr<IImage> Encode(const std::shared_ptr<IImage>& rgba, IImage::Format format, bool mipmaps, bool exact) {
  std::shared_ptr<const IImage> src = rgba;
  if (IImage::IsCompressed(format)) src = ImageUtil::AdjustImageForCompression(src, exact, nullptr);
  auto out = mipmaps ? ImageUtil::CreateMipmaps(src, format, exact, nullptr) : ImageUtil::ForceFormat(src, format);
  if (!out) throw kel::wexception(L"Conversion failed");
  return out;
}

void SavePng(const IImage& rgba, const std::string& path) {
  cli::WritePng(path, rgba.lineData(0, 0), static_cast<std::uint32_t>(rgba.width()),
                static_cast<std::uint32_t>(rgba.height()), static_cast<std::size_t>(rgba.rowPitch()), 4);
}

void SaveDds(const std::shared_ptr<IImage>& image, const std::string& path) {
  kel::DDSFileUtil::SaveTexture(image, kel::Utf8String2WString(path));
}

struct ConvertArgs {
  std::vector<std::string> files;
  Target target = Target::Auto;
  bool mipmaps = false, exact = false;
};

int RunConvert(const ConvertArgs& a) {
  if (a.files.size() < 2) throw tool::UsageError("convert needs IN... and OUT");
  const Target target = a.target;
  const bool mipmaps = a.mipmaps, exact = a.exact;
  std::vector<std::string> inputs(a.files.begin(), a.files.end() - 1);
  const std::string out = a.files.back();

  if (inputs.size() == 1 && !fs::is_directory(out)) {
    const std::string ext = Lower(fs::path(out).extension().string());
    if (ext != ".dds" && ext != ".png") throw tool::UsageError("OUT must end in .dds or .png (or be a directory)");
    std::shared_ptr<IImage> image, encoded;
    {
      tool::Task task(kel::Utf8String2WString("convert " + fs::path(inputs[0]).filename().string()), 3);
      image = LoadRgba(inputs[0]);
      task.step(1);
      if (ext == ".png") {
        SavePng(*image, out);
      } else {
        encoded = Encode(image, FormatFor(target, *image), mipmaps, exact);
        task.step(2);
        SaveDds(encoded, out);
      }
      task.progress().finish();
    }
    if (ext == ".png") {
      std::printf("%s: %llux%llu RGBA -> %s\n", inputs[0].c_str(), static_cast<unsigned long long>(image->width()),
                  static_cast<unsigned long long>(image->height()), out.c_str());
      return 0;
    }
    static const char* kNames[] = {"RGBA", "BGRA", "DXT1", "DXT5"};
    std::printf("%s: %llux%llu %s, %llu level(s) -> %s\n", inputs[0].c_str(),
                static_cast<unsigned long long>(encoded->width()), static_cast<unsigned long long>(encoded->height()),
                kNames[encoded->format() & 3], static_cast<unsigned long long>(encoded->mipLevels()), out.c_str());
    return 0;
  }

  // Many inputs: OUT is a directory of <stem>.dds files.
  for (std::size_t i = 0; i < inputs.size(); ++i)
    for (std::size_t j = 0; j < i; ++j)
      if (fs::path(inputs[i]).stem() == fs::path(inputs[j]).stem())
        throw tool::UsageError("two inputs would both be written as " + fs::path(inputs[i]).stem().string() + ".dds");
  std::error_code ec;
  fs::create_directories(out, ec);
  if (!fs::is_directory(out)) throw tool::UsageError("OUT must be a directory when converting several inputs");
  {
    // Three phases, each with its own bar beneath the command's.
    tool::Task task(L"texture convert", 3);
    const auto count = static_cast<std::int64_t>(inputs.size());
    std::vector<std::shared_ptr<const IImage>> images(inputs.size());
    std::vector<IImage::Format> formats(inputs.size());
    {
      kel::Progress loading(L"load and resize", count);
      for (std::size_t i = 0; i < inputs.size(); ++i) {
        auto rgba = LoadRgba(inputs[i]);
        formats[i] = FormatFor(target, *rgba);
        images[i] = mipmaps || !IImage::IsCompressed(formats[i])
                        ? Encode(rgba, formats[i], mipmaps, exact)
                        : ImageUtil::AdjustImageForCompression(rgba, exact, nullptr);
        tool::Step(loading, static_cast<std::int64_t>(i) + 1);
      }
    }
    task.step(1);
    if (!mipmaps) {
      // One parallel codec pass per DXT format over the images that want it.
      kel::Progress compressing(L"compress", 2);
      int pass = 0;
      for (IImage::Format f : {IImage::DXT1, IImage::DXT5}) {
        std::vector<std::size_t> which;
        std::vector<std::shared_ptr<const IImage>> batch;
        for (std::size_t i = 0; i < inputs.size(); ++i)
          if (formats[i] == f) which.push_back(i), batch.push_back(images[i]);
        if (!batch.empty()) {
          kel::IDataArray<std::shared_ptr<const IImage>> view{batch.data(), static_cast<std::uint32_t>(batch.size())};
          ImageUtil::CompressImages(view, f);
          for (std::size_t k = 0; k < which.size(); ++k) images[which[k]] = batch[k];
        }
        tool::Step(compressing, ++pass);
      }
    }
    task.step(2);
    {
      kel::Progress writing(L"write", count);
      for (std::size_t i = 0; i < inputs.size(); ++i) {
        const std::string path = (fs::path(out) / fs::path(inputs[i]).stem()).string() + ".dds";
        SaveDds(std::const_pointer_cast<IImage>(images[i]), path);
        tool::Step(writing, static_cast<std::int64_t>(i) + 1);
      }
    }
    task.progress().finish();
  }
  std::printf("%zu texture(s) written to %s\n", inputs.size(), out.c_str());
  return 0;
}

}  // namespace

void AddTextureCommands(CLI::App& app) {
  CLI::App* group = tool::AddGroup(app, "texture", "DDS textures: convert pictures, look at textures");
  auto a = std::make_shared<ConvertArgs>();
  CLI::App* cmd = tool::AddCommand(
      *group, "convert", "PNG, JPEG or DDS to DDS textures, or DDS to PNG",
      "One input: OUT ending in .dds writes a DDS texture, OUT ending in .png writes the\n"
      "picture decoded to RGBA (handy for looking at a DDS). Several inputs: OUT is a\n"
      "directory that receives <name>.dds for each input, compressed in one parallel pass.\n"
      "With --format auto (the default) opaque pictures become DXT1 and anything with\n"
      "alpha DXT5. DXT targets are padded to power-of-two sizes of at least 4 first.",
      [a] { return RunConvert(*a); });
  cmd->add_option("FILES", a->files, "IN... OUT: pictures to convert, then the output file or directory")
      ->required()
      ->type_name("PATH");
  cmd->add_option_function<std::string>(
         "--format",
         [a](const std::string& name) {
           const auto it = kTargets.find(name);
           if (it == kTargets.end())
             throw CLI::ValidationError("--format must be dxt1, dxt5, rgba, bgra or auto, not '" + name + "'");
           a->target = it->second;
         },
         "dxt1, dxt5, rgba, bgra, or auto (default): DXT1 when opaque, else DXT5")
      ->type_name("FORMAT");
  cmd->add_flag("--mipmaps", a->mipmaps, "store the whole mip chain");
  cmd->add_flag("--exact", a->exact, "resample with the bilinear path only (no fast half-size shortcut)");
}
