#pragma once

#include <QByteArray>
#include <QSet>
#include <QString>

#include <cstdio>
#include <exception>
#include <vector>

/** A benchmark's own failure (not a missed goal): what it measured with it is missing. */
struct Failure
{
    QString what;
};

/** One line of a benchmark's output: its name and the goal it is held to, if any. */
struct Figure
{
    const char *name;
    const char *goal = nullptr;
};

/** A number as the figures print it, with `decimals` after the point. */
inline QString fixed(double value, int decimals)
{
    return QString::number(value, 'f', decimals);
}

/**
 * @brief Prints a benchmark's figures, one line each, and goes on past a part that fails.
 *
 * A part measures some figures and then prints them with print(). When it throws, every
 * one of its figures not printed yet is printed as "name: missing (goal …; why)", and
 * the benchmark goes on with its next part: one round that fails on a busy machine
 * must not take the other figures with it. Parts may nest: a setup, as a part of all()
 * the figures, around the parts that need it. exitCode() is 1 once a figure is missing.
 */
class Report
{
public:
    /** `figures`: every figure of the benchmark. */
    Report(const char *benchmark, std::vector<Figure> figures)
        : m_benchmark(benchmark), m_all(std::move(figures))
    {}

    const std::vector<Figure> &all() const { return m_all; }

    template <typename Measure> void part(const std::vector<Figure> &figures, Measure &&measure)
    {
        QString why;
        try {
            measure();
            return;
        } catch (const Failure &failure) {
            why = failure.what;
        } catch (const std::exception &error) {
            why = QString::fromLocal8Bit(error.what());
        }
        std::fprintf(stderr, "%s: %s\n", m_benchmark, qPrintable(why));
        // The line holds the first line of the reason; stderr has all of it.
        const QString reason = why.section(u'\n', 0, 0);
        for (const Figure &figure : figures) {
            if (!m_done.contains(QByteArray(figure.name)))
                line(figure, QStringLiteral("missing"), reason);
        }
        m_missing = true;
    }

    /** "name: value (goal …; detail)", the parentheses only where there is something. */
    void print(const Figure &figure, const QString &value, const QString &detail = {})
    {
        line(figure, value, detail);
    }

    int exitCode() const { return m_missing ? 1 : 0; }

private:
    void line(const Figure &figure, const QString &value, const QString &detail)
    {
        QString notes =
            figure.goal ? QStringLiteral("goal ") + QString::fromUtf8(figure.goal) : QString();
        if (!detail.isEmpty())
            notes += (notes.isEmpty() ? QString() : QStringLiteral("; ")) + detail;
        const QString text = QString::fromLatin1(figure.name) + QStringLiteral(": ") + value +
                             (notes.isEmpty() ? QString() : QStringLiteral(" (") + notes + u')');
        std::printf("%s\n", text.toUtf8().constData());
        // Seen at once, also when a later part hangs or the program dies.
        std::fflush(stdout);
        m_done.insert(QByteArray(figure.name));
    }

    const char *m_benchmark;
    std::vector<Figure> m_all;
    QSet<QByteArray> m_done;
    bool m_missing = false;
};
