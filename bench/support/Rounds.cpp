// Running and recording turns.
#include "Rounds.h"

#include <algorithm>
#include <cstdio>

#include <malloc.h>

namespace SolvaneBench {

double secondsOn(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

unsigned long heapBytes()
{
    struct mallinfo2 const info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

namespace {

void prepare(Contender const& contender, unsigned long operations)
{
    if (contender.prepare) {
        contender.prepare(operations);
    }
}

} // namespace

Rounds::Rounds(unsigned int rounds, double blockSeconds, Cpu cpu)
    : m_rounds(rounds), m_blockSeconds(blockSeconds),
      m_cpuClock(cpu == Cpu::thread ? CLOCK_THREAD_CPUTIME_ID : CLOCK_PROCESS_CPUTIME_ID)
{
}

unsigned long Rounds::operationsOfABlock(Contender const& contender) const
{
    unsigned long operations = 1;
    for (;;) {
        prepare(contender, operations);
        double const start = secondsOn(CLOCK_MONOTONIC);
        contender.work(operations);
        double const seconds = secondsOn(CLOCK_MONOTONIC) - start;
        if (seconds >= m_blockSeconds / 4) {
            double const wanted = static_cast<double>(operations) * m_blockSeconds / seconds;
            return std::max(1UL, static_cast<unsigned long>(wanted));
        }
        operations *= 2;
    }
}

Rounds::Time Rounds::timeOf(Contender const& contender, unsigned long operations) const
{
    prepare(contender, operations);
    double const start = secondsOn(CLOCK_MONOTONIC);
    double const cpuStart = secondsOn(m_cpuClock);
    contender.work(operations);
    double const cpu = secondsOn(m_cpuClock) - cpuStart;
    return {secondsOn(CLOCK_MONOTONIC) - start, cpu};
}

void Rounds::compare(std::string const& row, std::vector<Contender> const& contenders,
                     unsigned long size, unsigned long least) const
{
    constexpr unsigned long mostSlices = 16;
    unsigned long const wanted = std::max(least, operationsOfABlock(contenders.front()));
    unsigned long const slices = std::min(mostSlices, wanted / least);
    unsigned long const operations = wanted / slices;
    for (Contender const& contender : contenders) {
        prepare(contender, operations);
        contender.work(operations); // warms the caches before the first turn
    }
    for (unsigned int round = 0; round < m_rounds; ++round) {
        std::vector<Time> times(contenders.size());
        for (unsigned long turn = 0; turn < slices * contenders.size(); ++turn) {
            std::size_t const who = (turn + turn / contenders.size() + round) % contenders.size();
            Time const time = timeOf(contenders[who], operations);
            times[who].seconds += time.seconds;
            times[who].cpu += time.cpu;
        }
        for (std::size_t who = 0; who < contenders.size(); ++who) {
            std::printf(R"({"row": "%s", "contender": "%s", "size": %lu, "round": %u, )"
                        R"("operations": %lu, "seconds": %.9f, "cpu": %.9f})"
                        "\n",
                        row.c_str(), contenders[who].name.c_str(), size, round, operations * slices,
                        times[who].seconds, times[who].cpu);
        }
        std::fflush(stdout);
    }
}

void Rounds::note(std::string const& row, std::string const& contender, std::string const& what,
                  double value, unsigned long size)
{
    std::printf(R"({"row": "%s", "contender": "%s", "size": %lu, "%s": %.9g})"
                "\n",
                row.c_str(), contender.c_str(), size, what.c_str(), value);
    std::fflush(stdout);
}

} // namespace SolvaneBench
