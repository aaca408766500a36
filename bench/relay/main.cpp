// Measures two relays side by side: the module as it ships, and the lean relay or another build of
// the module. Each runs in a process of its own; this one plays the kernel and the remote side and
// compares every byte. Repetitions alternate. Prints a line of comma-separated values for each:
//   cell,side,kind,pdus,seconds,round_trip,cpu,switches,faults,system_calls,allocations
// `pdus` are URBs where each is answered. A round trip is the median, where one URB is
// under way. What is negative was not measured.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <memory>

#include "bench/relay/Relay.h"
#include "bench/relay/Traffic.h"

namespace {

constexpr std::uint32_t kKi = 1024;
constexpr Cell kCells[] = {
    {"to-remote-512", Flow::kToRemote, 512, 0, 1},
    {"to-remote-4k", Flow::kToRemote, 4 * kKi, 0, 1},
    {"to-remote-64k", Flow::kToRemote, 64 * kKi, 0, 1},
    {"to-remote-1m", Flow::kToRemote, kKi* kKi, 0, 1},
    {"to-kernel-512", Flow::kToKernel, 512, 0, 1},
    {"to-kernel-4k", Flow::kToKernel, 4 * kKi, 0, 1},
    {"to-kernel-64k", Flow::kToKernel, 64 * kKi, 0, 1},
    {"to-kernel-1m", Flow::kToKernel, kKi* kKi, 0, 1},
    {"in-512-w1", Flow::kIn, 512, 1, 1},
    {"in-4k-w1", Flow::kIn, 4 * kKi, 1, 1},
    {"in-64k-w1", Flow::kIn, 64 * kKi, 1, 1},
    {"in-1m-w1", Flow::kIn, kKi* kKi, 1, 1},
    {"in-512-w32", Flow::kIn, 512, 32, 1},
    {"out-512-w32", Flow::kOut, 512, 32, 1},
    {"in-64k-w32", Flow::kIn, 64 * kKi, 32, 1},
    {"out-64k-w32", Flow::kOut, 64 * kKi, 32, 1},
    {"in-512-w32-d16", Flow::kIn, 512, 32, 16},
    {"out-512-w32-d16", Flow::kOut, 512, 32, 16},
};

struct Options {
    std::vector<std::string> cells;
    std::vector<std::string> sides;
    int rounds = 3;
    int repetitions = 5;
    double seconds = 0.12;
    std::uint32_t pdus = 0;
    bool counted = true;
    std::string wrapper;
};

// One relay and its traffic.
class Side {
  public:
    Side(const Cell& cell, const RelayOptions& options)
        : cell_(cell), relay_(options), traffic_(cell, relay_.Stream(), relay_.Kernels()) {}

    double Seconds(std::uint32_t count) {
        const auto start = std::chrono::steady_clock::now();
        traffic_.Move(count);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    // How many PDUs take so long, as far as they are not held up by others. Warms the relay up.
    std::uint32_t CountFor(double seconds) {
        constexpr int kEnough = 3;
        std::uint32_t count = cell_.devices;
        for (int enough = 0; enough < kEnough;) {
            const double most = 4 * count;
            const double fitting = count * seconds / Seconds(count);
            enough += fitting < most ? 1 : 0;
            const double next = std::clamp(fitting, static_cast<double>(count), most);
            count = static_cast<std::uint32_t>(next) / cell_.devices * cell_.devices;
        }
        return count;
    }
    void Measure(std::size_t number, const char* kind, std::uint32_t count) {
        const Counts before = relay_.Count();
        const double seconds = Seconds(count);
        const Counts after = relay_.Count();
        std::printf("%s,%zu,%s,%u,%.9f,%.9f,%.9f,%.0f,%.0f,%.0f,%.0f\n", cell_.name, number, kind,
                    count, seconds, traffic_.RoundTrip(), after.cpu - before.cpu,
                    after.switches - before.switches, after.faults - before.faults,
                    after.system_calls < 0 ? -1 : after.system_calls - before.system_calls,
                    after.allocations < 0 ? -1 : after.allocations - before.allocations);
        std::fflush(stdout);
    }

  private:
    const Cell cell_;
    Relay relay_;
    Traffic traffic_;
};

void MeasureCell(const Cell& cell, const Options& options) {
    RelayOptions relay;
    relay.devices = cell.devices;
    for (std::istringstream words(options.wrapper); !words.eof();) {
        std::string word;
        if (words >> word) relay.wrapper.push_back(word);
    }
    const auto start = [&](const std::string& what) {
        relay.what = what;
        return std::make_unique<Side>(cell, relay);
    };
    const auto count_for = [&](Side& side) {
        return options.pdus != 0 ? options.pdus : side.CountFor(options.seconds);
    };
    for (int round = 0; round < options.rounds; ++round) {
        std::vector<std::pair<std::unique_ptr<Side>, std::uint32_t>> sides;
        for (const std::string& what : options.sides) {
            auto side = start(what);
            const std::uint32_t count = count_for(*side);
            sides.emplace_back(std::move(side), count);
        }
        for (int i = 0; i < options.repetitions; ++i)
            for (std::size_t number = 0; number < sides.size(); ++number)
                sides[number].first->Measure(number, "timed", sides[number].second);
    }
    relay.counted = true;
    for (std::size_t number = 0; options.counted && number < options.sides.size(); ++number) {
        const auto side = start(options.sides[number]);
        const std::uint32_t count = count_for(*side);
        side->Seconds(count);
        side->Measure(number, "counted", count);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc > 1 && argv[1] == kServe) return ServeRelay({argv + 2, argv + argc});
    Options options;
    CLI::App app("Measures relays side by side; see the head of bench/relay/main.cpp.");
    app.add_option("--side", options.sides, "A library, or `lean`; once for each side")->required();
    app.add_option("--cell", options.cells, "Which cells; all if not said");
    app.add_option("--rounds", options.rounds, "Each with new processes");
    app.add_option("--repetitions", options.repetitions, "Of each side in each round");
    app.add_option("--seconds", options.seconds, "How long a repetition is to take");
    app.add_option("--pdus", options.pdus,
                   "Exactly so many in a repetition, which need not be warm");
    app.add_flag("!--not-counted", options.counted,
                 "Without the pass that counts system calls and allocations");
    app.add_option("--wrapper", options.wrapper, "A program to run each relay under");
    CLI11_PARSE(app, argc, argv);
    for (const std::string& name : options.cells)
        Require(std::ranges::any_of(kCells, [&](const Cell& cell) { return cell.name == name; }),
                "there is such a cell");
    for (const Cell& cell : kCells)
        if (options.cells.empty() || std::ranges::count(options.cells, cell.name) > 0)
            MeasureCell(cell, options);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "relay: %s\n", error.what());
    return 1;
}
