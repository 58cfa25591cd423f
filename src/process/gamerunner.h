#pragma once

#include "processbox.h"

#include <QCoroTask>
#include <QStringList>
#include <chrono>
#include <memory>
#include <optional>

class LogStore;

/**
 * @brief Runs the game through the engine and keeps what the model needs to judge
 * how the run ended: the box to stop it and the time it began.
 */
class GameRunner
{
public:
    using Clock = std::chrono::steady_clock;

    QCoro::Task<int> run(QString engine, QStringList args, LogStore *log);

    std::shared_ptr<ProcessBox> box;
    // What each run's box gives the game between the terminate request and the kill.
    std::chrono::milliseconds stopGrace = ProcessBox::defaultGrace;
    std::optional<Clock::time_point> startedAt;
};
