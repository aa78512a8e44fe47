// Compiled only into an executable linked against a static Qt (the Windows cross build): a
// static Qt has no plugin directory to load from, so the platform plugins are linked in and
// registered here. "windows" is the desktop; "offscreen" runs without one (QT_QPA_PLATFORM).
#include <QtPlugin>

Q_IMPORT_PLUGIN(QWindowsIntegrationPlugin)
Q_IMPORT_PLUGIN(QOffscreenIntegrationPlugin)
