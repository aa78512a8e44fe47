#include "base/network_guard.h"

#include <QDebug>
#include <QNetworkAccessManager>
#include <QVariant>

namespace {
// Marks a manager whose accessibility is already guarded, so the hook is installed once.
constexpr char kGuardProperty[] = "cvBearerForced";
} // namespace

// Qt 5.15 deprecates the accessibility API, yet its managers still refuse every request while
// they believe the network is unreachable; the updater would rather let requests fail alone.
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED

void forceNetworkAccessible(QNetworkAccessManager* manager)
{
    if (!manager)
        return;
    if (manager->property(kGuardProperty).toBool())
        return;
    manager->setProperty(kGuardProperty, QVariant(true));
    manager->setNetworkAccessible(QNetworkAccessManager::Accessible);
    // The re-forcing reports Accessible, which the functor ignores: no loop.
    QObject::connect(manager, &QNetworkAccessManager::networkAccessibleChanged, manager,
                     [manager](QNetworkAccessManager::NetworkAccessibility accessible) {
                         if (accessible != QNetworkAccessManager::NotAccessible)
                             return;
                         qWarning() << "[bearer] Qt bao NotAccessible -> ep lai Accessible";
                         manager->setNetworkAccessible(QNetworkAccessManager::Accessible);
                     });
}

QT_WARNING_POP
