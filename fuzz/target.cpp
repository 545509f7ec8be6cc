#include "target.h"

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  testing::GTEST_FLAG(throw_on_failure) = true;
  return 0;
}
