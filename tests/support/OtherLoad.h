#ifndef TESTS_SUPPORT_OTHERLOAD_H
#define TESTS_SUPPORT_OTHERLOAD_H

#include <fstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

/// How busy other processes have kept the machine's cores since this object was made.
class OtherLoad
{
public:
    /// @param own a process that does not count, like this one
    explicit OtherLoad(pid_t own) : mOwn(own), mBefore(now()) {}

    /// From 0 (idle) to 1 (all cores, all the time).
    double share() const
    {
        const Ticks after = now();
        const double all = after.all - mBefore.all;
        return all <= 0 ? 0 : ((after.busy - mBefore.busy) - (after.own - mBefore.own)) / all;
    }

private:
    /// Sums since the machine was started.
    struct Ticks
    {
        double all = 0;
        double busy = 0; ///< of programs, and the kernel for them; without interrupts
        double own = 0;
    };

    Ticks now() const
    {
        constexpr int fields = 8; // user, nice, system, idle, iowait, irq, softirq, steal
        constexpr int busyFields = 3;
        Ticks ticks;
        std::ifstream machine("/proc/stat");
        machine.ignore(sizeof "cpu");
        double value = 0;
        for (int field = 0; field < fields && machine >> value; ++field)
        {
            ticks.all += value;
            ticks.busy += field < busyFields ? value : 0;
        }
        ticks.own = of(getpid()) + of(mOwn);
        return ticks;
    }

    // "1 (name) S ...": utime and stime are the 14th and 15th field.
    static double of(pid_t process)
    {
        constexpr int before = 11; // the state, and the fields behind it
        std::ifstream file("/proc/" + std::to_string(process) + "/stat");
        std::string text;
        std::getline(file, text, ')');
        for (int field = 0; field < before; ++field)
            file >> text;
        double user = 0;
        double system = 0;
        file >> user >> system;
        return user + system;
    }

    const pid_t mOwn;
    const Ticks mBefore;
};

#endif
