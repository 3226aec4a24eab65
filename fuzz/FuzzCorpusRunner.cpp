// Replays a fuzz corpus without libFuzzer, so that the committed inputs run as an ordinary test
// (under the sanitizer presets too). Arguments: corpus directories or single input files.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool runFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path path(argv[i]);
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file() && runFile(entry.path())) ++count;
      }
    } else if (runFile(path)) {
      ++count;
    } else {
      std::fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
  }
  std::printf("%zu inputs run\n", count);
  return count > 0 ? 0 : 1;
}
