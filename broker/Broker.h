#ifndef BROKER_BROKER_H
#define BROKER_BROKER_H

#include <memory>
#include <string>

#include "broker/Answerer.h"
#include "broker/Connections.h"
#include "broker/Forgetting.h"
#include "broker/IntakePause.h"
#include "broker/MemoryBudget.h"
#include "broker/Options.h"
#include "broker/Outbox.h"
#include "broker/OwnedValues.h"
#include "broker/PostApplier.h"
#include "broker/Questions.h"
#include "broker/Schedule.h"
#include "broker/Statistics.h"
#include "broker/base/Refusals.h"
#include "daemon/Supervisor.h"

/// The broker: takes posts, answers requests, publishes changes. Everything runs on the calling thread.
class Broker
{
public:
    /// Binds the three ports and loads the state.
    /// @throws std::runtime_error if a port is taken, or the policy cannot be enforced here
    Broker(const Options& options, std::unique_ptr<const Policy> policy);

    /// Serves until `interrupt` is readable.
    void serveUntil(int interrupt);

    void setLimits(const Limits& limits);

    /// Puts another policy in force.
    /// @throws std::runtime_error if it cannot be enforced here. The previous policy then stays in force.
    void setPolicy(std::unique_ptr<const Policy> policy);

    /// Takes in and answers everything already received, within 1.2 s. The last call.
    void finish();

private:
    /// The loop: one round each time something has arrived or is due.
    struct Loop
    {
        Poller poller;
        Pollable interrupt{Pollable::Kind::Interrupt};
        bool isInterrupted = false;
        bool hasNewPosters = false; ///< post connections wait to be accepted
        bool hasWorked = false;     ///< memory may have been freed
        bool isEnding = false;
        const TimePoint started = Clock::now();
        TimePoint awake{}; ///< when the round's events had come
        TimePoint nextHeartbeat{};
        TimePoint nextTrim = TimePoint::max();
        TimePoint nextLook{}; ///< at which connections make progress
        Durations rounds;
        Schedule schedule;
    };

    OwnedValues::World makeWorld();
    Connections::Handlers makeHandlers();
    void applyPolicy(TimePoint now);
    void planTasks();
    void waitForWork();
    std::size_t takeEvents(std::chrono::microseconds limit);
    void dispatch(const Poller::Event& event, TimePoint now);
    void acceptAt(const Pollable* port, TimePoint now);
    void doRound();
    void takeHeavyPosts(TimePoint end);
    void pauseIntake(TimePoint now);
    void relieveMemory();
    void addNumbers(Statistics::Numbers& numbers) const;

    Options mOptions;
    Refusals mRefusals;
    MemoryBudget mBudget{mOptions.limits.memory};
    Loop mLoop;
    DeviceState mState;
    OwnedValues mOwnedValues;
    Connections mConnections;
    Outbox mOutbox;
    PostApplier mApplier;
    Forgetting mForgetting;
    Answerer mAnswerer;
    Questions mQuestions;
    IntakePause mPause{mLoop.started};
    Supervisor mSupervisor{"the broker"};
};

#endif
