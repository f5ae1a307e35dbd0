// RandomSequences [SEQUENCES [SEED]]: runs random sequences of events that can happen to a protected machine,
// and reports those after which a finished backup was wrong. The exit status is 1 if there are any.

#include "model/ModelDriver.h"
#include "model/Sequence.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace {

using namespace agent::model;

constexpr std::uint32_t usualCount = 1000;
constexpr std::size_t mostShown = 5;

std::uint32_t numberFrom(const char* text) {
    return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

/// How many steps an undisturbed backup of one volume has.
std::uint32_t stepsOfABackup(World& world) {
    HeldMounts mounts;
    world.reset();
    ModelDriver(world).publish();
    return runBackup(world, {agent::core::backup::FULL, 1, {}, false, false}, mounts).steps;
}

void show(World& world, std::uint32_t number, const Events& events) {
    const Events fewer = shrink(world, events);
    std::cout << "sequence " << number << ": " << play(world, fewer).wrong << " after\n"
              << describe(fewer) << std::endl;
}

/// Runs `count` sequences and prints a summary. Each sequence has a random source of its own, so that a wrong
/// one can be repeated alone by its number.
int playAll(std::uint32_t count, std::uint32_t seed) {
    World world;
    const std::uint32_t steps = stepsOfABackup(world);
    Verdict total;
    std::size_t wrong = 0;
    for (std::uint32_t number = 0; number < count; ++number) {
        std::mt19937_64 source((std::uint64_t{seed} << 32U) + number);
        const Events events = randomEvents(source, steps);
        const Verdict verdict = play(world, events);
        total.finished += verdict.finished;
        total.incremental += verdict.incremental;
        total.failed += verdict.failed;
        total.killed += verdict.killed;
        if (!verdict.wrong.empty() && ++wrong <= mostShown) {
            show(world, number, events);
        }
    }
    std::cout << count << " sequences of seed " << seed << ": " << wrong << " wrong\n"
              << total.finished << " backups finished, " << total.incremental
              << " of them asked for as incremental; " << total.failed << " failed, " << total.killed
              << " killed; " << steps << " steps in a backup of one volume\n";
    return wrong == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return playAll(argc > 1 ? numberFrom(argv[1]) : usualCount, argc > 2 ? numberFrom(argv[2]) : 1);
    } catch (const std::exception& error) {
        std::cerr << "RandomSequences: " << error.what() << "\n";
        return 2;
    }
}
