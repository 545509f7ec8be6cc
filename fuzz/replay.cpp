// Runs the files named, once each: what `scripts/test` does with the corpus, without libFuzzer.

#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "simulation.h"

extern "C" {
int LLVMFuzzerInitialize(int* argc, char*** argv);
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
}

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  // More often than any code that stops after a number of tries. The fuzzer has no time for that.
  vexo::fuzz::fake_call::enough = 2'000'000;
  for (int i = 1; i < argc; ++i) {
    std::cout << "running " << argv[i] << std::endl;  // flushed: it may be the last to be said
    std::ifstream file(argv[i], std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    if (input.empty()) return 1;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  return argc > 1 ? 0 : 2;
}
