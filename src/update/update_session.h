#pragma once
#include "update/bounded_network_access.h"
#include "update/update_outcome.h"

#include <QString>
#include <functional>

// Context of one apply run, filled by the entry point. Members are destroyed in reverse
// order: the network manager first, then the callback, then the two strings.
struct UpdateSession {
    QString appDir;        // directory of the running updater: the installation directory
    QString selfFileName;  // the updater's own file name, without directory
    std::function<void(const QString&)> onStatus;  // may be empty
    BoundedNetworkAccessManager network;
};
