// The command line of the two-process bench: what to measure, how often, and
// on how many nodes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "bench_processes.h"

namespace bench {

constexpr long kMaxRecord = 32767;  // the largest record one CPI-C send takes

enum class Test : uint32_t { kLatency = 0, kThroughput = 1 };
enum class Path : uint32_t { kRaw = 0, kCpic = 1 };

struct Options {
  int reps = 15;
  double seconds = 0.05;
  std::vector<long> sizes{100, 4096, kMaxRecord};
  std::vector<Test> tests{Test::kLatency, Test::kThroughput};
  bool raw = true, cpic = true;
  std::string mode = "#INTER";
  std::string snanoded = SNANODED_PATH;
  std::string wrap_client, wrap_server;
  std::string pin;  // "", "same" or "split"
  bool keep = false, verbose = false;
  bool one_node = true, two_nodes = false;  // --nodes one|two|both
  std::vector<long> ru_sizes{1024};         // one pair of linked daemons each
  long pacing_window = 7;
};

inline std::vector<std::string> split(const std::string &text, char separator) {
  std::vector<std::string> out;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, separator)) {
    if (!item.empty()) out.push_back(item);
  }
  return out;
}

[[noreturn]] inline void usage() {
  std::fprintf(stderr,
               "usage: two_process_bench [--long] [--reps N] [--seconds S] [--sizes A,B,..]\n"
               "         [--tests latency,throughput] [--paths raw,cpic] [--mode NAME]\n"
               "         [--snanoded PATH] [--wrap-client CMD] [--wrap-server CMD]\n"
               "         [--pin same|split] [--keep] [--verbose]\n"
               "         [--nodes one|two|both] [--ru-sizes 1024,16384] [--pacing N]\n"
               "  default: 15 repetitions of 0.05 s blocks; --long: 31 of 0.3 s\n");
  std::exit(2);
}

inline Options parse(int argc, char **argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage();
      return argv[++i];
    };
    if (arg == "--long") {
      o.reps = 31;
      o.seconds = 0.3;
    } else if (arg == "--reps") {
      o.reps = std::atoi(value().c_str());
    } else if (arg == "--seconds") {
      o.seconds = std::atof(value().c_str());
    } else if (arg == "--sizes") {
      o.sizes.clear();
      for (const auto &s : split(value(), ',')) o.sizes.push_back(std::atol(s.c_str()));
    } else if (arg == "--tests") {
      o.tests.clear();
      for (const auto &t : split(value(), ',')) {
        if (t != "latency" && t != "throughput") usage();
        o.tests.push_back(t == "latency" ? Test::kLatency : Test::kThroughput);
      }
    } else if (arg == "--paths") {
      o.raw = o.cpic = false;
      for (const auto &p : split(value(), ',')) {
        if (p != "raw" && p != "cpic") usage();
        (p == "raw" ? o.raw : o.cpic) = true;
      }
    } else if (arg == "--mode") {
      o.mode = value();
    } else if (arg == "--snanoded") {
      o.snanoded = value();
    } else if (arg == "--wrap-client") {
      o.wrap_client = value();
    } else if (arg == "--wrap-server") {
      o.wrap_server = value();
    } else if (arg == "--pin") {
      o.pin = value();
      if (o.pin != "same" && o.pin != "split") usage();
    } else if (arg == "--nodes") {
      const std::string nodes = value();
      if (nodes != "one" && nodes != "two" && nodes != "both") usage();
      o.one_node = nodes != "two";
      o.two_nodes = nodes != "one";
    } else if (arg == "--ru-sizes") {
      o.ru_sizes.clear();
      for (const auto &s : split(value(), ',')) o.ru_sizes.push_back(std::atol(s.c_str()));
    } else if (arg == "--pacing") {
      o.pacing_window = std::atol(value().c_str());
    } else if (arg == "--keep") {
      o.keep = true;
    } else if (arg == "--verbose") {
      o.verbose = true;
    } else {
      usage();
    }
  }
  if (o.reps < 1 || o.seconds <= 0 || o.sizes.empty() || o.tests.empty() || (!o.raw && !o.cpic)) {
    usage();
  }
  for (long ru : o.ru_sizes) {
    if (ru < 256 || ru > 16384) die("RU sizes are 256 to 16384");
  }
  if (o.ru_sizes.empty() || o.pacing_window < 0 || o.pacing_window > 63) usage();
  for (long size : o.sizes) {
    if (size < 1 || size > kMaxRecord) die("record sizes are 1 to " + std::to_string(kMaxRecord));
  }
  return o;
}

}  // namespace bench
