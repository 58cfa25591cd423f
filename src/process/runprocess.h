#pragma once

#include "processbox.h"

#include <QCoroTask>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>

using LineSink = std::function<void(const QString &line)>;

/**
 * @brief Runs a program to its end with stdout and stderr merged and cut into lines.
 *
 * No shell is involved and stdin is the null device. Every line reaches `onLine`
 * before the exit status is returned; a child killed by a signal reports the signal
 * number. Throws LaunchError when the program cannot be started. The child leads a
 * process group of its own; with a `box`, the run (the whole group) can be stopped
 * from elsewhere until it ends.
 */
QCoro::Task<int> runProcess(QString executable, QStringList arguments,
                            std::shared_ptr<ProcessBox> box, LineSink onLine);
