#ifndef FUZZ_TARGET_H_
#define FUZZ_TARGET_H_

// What every target includes: its two functions as libFuzzer (or replay.cpp) calls them, and
// gtest's EXPECT_... and ASSERT_..., any failure of which ends the process as a crash does.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

extern "C" {
// Runs one input.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
// Runs once, before all else.
int LLVMFuzzerInitialize(int* argc, char*** argv);
}

#endif  // FUZZ_TARGET_H_
