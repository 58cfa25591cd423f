#pragma once

#include "app/appmodel.h"

/**
 * @brief Puts a model into any state without running what leads there: for the
 * screenshot tool and the window tests, which render states rather than reach them.
 */
class ModelPreview
{
public:
    explicit ModelPreview(AppModel &model) : m(model) {}

    ModelPreview &state(const AppState &state)
    {
        m.setState(state);
        return *this;
    }
    ModelPreview &progress(std::optional<double> fraction, const QString &text = {})
    {
        m.setProgress(fraction);
        m.setProgressText(text);
        return *this;
    }
    ModelPreview &setupNote(const QString &note)
    {
        m.setSetupNote(note);
        return *this;
    }
    ModelPreview &failureReport(std::optional<QString> report)
    {
        m.setFailureReport(std::move(report));
        return *this;
    }
    ModelPreview &downloadSizeText(std::optional<QString> text)
    {
        m.setDownloadSizeText(std::move(text));
        return *this;
    }
    /** The installed game's record and what its host offers. */
    ModelPreview &versions(std::optional<QString> installed, const QString &latest)
    {
        m.m_gameVersion = std::move(installed);
        m.setLatestVersion(latest);
        Q_EMIT m.versionsChanged();
        return *this;
    }

private:
    AppModel &m;
};
