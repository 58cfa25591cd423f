#pragma once

#include <QNetworkAccessManager>

/**
 * @brief The one network manager for small requests (checksum list, size queries).
 *
 * Lives on the GUI thread and dies with the application. Large downloads make a
 * fresh manager of their own so that nothing of one transfer leaks into the next.
 */
QNetworkAccessManager *sharedNetwork();

/** Sets the proxy policy once per process: the desktop's proxy settings apply. */
void useSystemProxy();
