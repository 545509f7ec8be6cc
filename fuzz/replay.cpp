// Runs the files and directories named, once each: what `scripts/test` does with the corpus,
// without libFuzzer.

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "fake_call.h"

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
}

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const std::vector<std::string>& arguments) {
  std::vector<fs::path> files;
  for (const auto& argument : arguments) {
    if (!fs::is_directory(argument)) {
      files.emplace_back(argument);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(argument)) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void run(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  const std::string input{std::istreambuf_iterator<char>(file), {}};
  std::cout << "running " << path.string() << std::endl;  // flushed: it may be the last to be said
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  // Nobody gives up by then. Too long for the fuzzer, where it is one input of many.
  vexo::fuzz::fake_call::enough = 2'000'000;
  try {
    const auto files = files_of({argv + 1, argv + argc});
    for (const auto& path : files) run(path);
    if (files.empty()) std::cerr << "usage: " << argv[0] << " FILE|DIRECTORY...\n";
    return files.empty() ? 2 : 0;
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
