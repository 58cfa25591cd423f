#pragma once

#include "processbox.h"

#include <QCoroTask>
#include <QStringList>
#include <chrono>
#include <memory>

class LogStore;

/**
 * @brief Runs the game through the engine and keeps the box of the current run, so
 * that the model can stop it and tell a stop from an ending of the game's own.
 */
class GameRunner
{
public:
    GameRunner(TaskScope scope, std::chrono::milliseconds grace)
        : m_scope(std::move(scope)), m_grace(grace)
    {}

    QCoro::Task<int> run(QString engine, QStringList args, LogStore *log);

    std::shared_ptr<ProcessBox> box;

private:
    TaskScope m_scope;
    std::chrono::milliseconds m_grace;
};
