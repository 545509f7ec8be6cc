// One LUN lookup in the process itself: the configuration library's own load and free, and what the
// daemon adds to them.
//
//   lookups [Google Benchmark's options]
//   lookups count library|guid|naa TIMES   for valgrind --tool=callgrind, which counts instructions
//
// The inventory is $VEXO_ISCSI_CONF, and LUN is the identifier that is looked up.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "plugin_utils.h"
#include "runtime_tuning.h"

namespace {

using namespace vexo::scsiplugin;

std::string wanted() { return std::getenv("LUN"); }

std::string wanted_naa() {
  std::string naa = "6001405" + wanted().substr(0, 25);
  for (char& digit : naa) {
    if (digit == '-') digit = 'd';
  }
  return naa;
}

// No LUN is asked about: what is left is the library.
bool library() {
  conf_holder conf = {};
  load_request request = {};
  request.what = 0x7000;
  for (list_head* head : {&conf.luns, &conf.second, &conf.third}) head->next = head->prev = head;
  const bool loaded = VEXOiSCSIConfGet(&request, &conf, &conf.third, &conf.second) == 0;
  VEXOiSCSIConfFree(&conf);
  return loaded;
}

bool guid() { return IsLunSupport(LUN_TYPE_80, wanted()); }
bool naa() { return IsLunSupport(LUN_TYPE_83, wanted_naa()); }

using lookup = bool (*)();

void measure(benchmark::State& state, lookup what) {
  for (auto _ : state) {
    if (!what()) state.SkipWithError("not found");
  }
}

}  // namespace

int main(int argc, char** argv) {
  tune_runtime();
  if (argc == 4 && std::strcmp(argv[1], "count") == 0) {
    const lookup what = std::strcmp(argv[2], "naa") == 0    ? naa
                        : std::strcmp(argv[2], "guid") == 0 ? guid
                                                            : library;
    for (int i = std::atoi(argv[3]); i > 0; --i) {
      if (!what()) return 1;
    }
    return 0;
  }
  benchmark::RegisterBenchmark("library", measure, library);
  benchmark::RegisterBenchmark("guid", measure, guid);
  benchmark::RegisterBenchmark("naa", measure, naa);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
