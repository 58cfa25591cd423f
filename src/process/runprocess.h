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
 * number. Throws LaunchError when the program cannot be started, and Cancelled when
 * the box's scope is abandoned meanwhile (the run is then ended as a stop ends it).
 * The child leads a process group of its own and everything it starts belongs to
 * `box`, which can stop the whole run from elsewhere.
 */
QCoro::Task<int> runProcess(QString executable, QStringList arguments,
                            std::shared_ptr<ProcessBox> box, LineSink onLine);
