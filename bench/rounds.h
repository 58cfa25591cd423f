#pragma once

#include <QString>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <tuple>
#include <type_traits>
#include <vector>

/** One quantity measured once a round. */
class Samples
{
public:
    Samples() = default;
    template <typename Number>
    requires std::is_arithmetic_v<Number>
    explicit Samples(const std::vector<Number> &values) : m_values(values.begin(), values.end()) {}

    void add(double value) { m_values.push_back(value); }
    std::size_t size() const { return m_values.size(); }
    const std::vector<double> &values() const { return m_values; }

    // The median, not the mean or the best: one round that a neighbour slowed down,
    // or one that got lucky, moves it no more than any other round.
    double median() const
    {
        if (m_values.empty())
            return 0;
        std::vector<double> sorted = m_values;
        std::sort(sorted.begin(), sorted.end());
        const std::size_t n = sorted.size();
        return n % 2 ? sorted[n / 2] : (sorted[n / 2 - 1] + sorted[n / 2]) / 2;
    }
    double low() const
    {
        return m_values.empty() ? 0 : *std::min_element(m_values.begin(), m_values.end());
    }
    double high() const
    {
        return m_values.empty() ? 0 : *std::max_element(m_values.begin(), m_values.end());
    }
    /** "low–high", for the reader to see how far the rounds agreed. */
    QString spread(int decimals) const
    {
        return QString::number(low(), 'f', decimals) + QChar(0x2013) +
               QString::number(high(), 'f', decimals);
    }
    /** "median of 9 rounds, low–high", to follow a figure's goal. */
    QString rounds(int decimals) const
    {
        return QStringLiteral("median of %1 rounds, ").arg(size()) + spread(decimals);
    }

private:
    std::vector<double> m_values;
};

/** One figure of each round's result, e.g. samplesOf(runs, &Run::ns). */
template <typename Run, typename Projection>
Samples samplesOf(const std::vector<Run> &runs, Projection figure)
{
    Samples samples;
    for (const Run &run : runs)
        samples.add(double(std::invoke(figure, run)));
    return samples;
}

/** Round by round, `numerator` over `denominator`: both were measured in the same rounds. */
inline Samples ratios(const Samples &numerator, const Samples &denominator)
{
    Samples quotients;
    const std::size_t n = std::min(numerator.size(), denominator.size());
    for (std::size_t i = 0; i < n; ++i)
        quotients.add(numerator.values()[i] / denominator.values()[i]);
    return quotients;
}

/**
 * @brief Calls each side once a round, in the order given, for `rounds` rounds.
 *
 * The launcher's side and its references take turns, so a neighbour that keeps the
 * machine busy for a while slows them alike, and a ratio taken within one round does
 * not follow it. `warmUps` rounds run first and count for nothing: they fill the page
 * cache and load what loads lazily. Returns, for each side, its results in round
 * order: `auto [launcher, reference] = interleavedRounds(5, 0, runLauncher, runTool);`
 */
template <typename... Sides> auto interleavedRounds(int rounds, int warmUps, Sides &&...sides)
{
    std::tuple<std::vector<std::invoke_result_t<Sides &>>...> results;
    for (int round = -warmUps; round < rounds; ++round) {
        const bool counted = round >= 0;
        // A comma fold runs the sides left to right.
        std::apply(
            [&](auto &...perSide) {
                (
                    [&](auto &into, auto &side) {
                        auto result = side();
                        if (counted)
                            into.push_back(std::move(result));
                    }(perSide, sides),
                    ...);
            },
            results);
    }
    return results;
}
