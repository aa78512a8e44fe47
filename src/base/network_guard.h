#pragma once
class QNetworkAccessManager;

// Keeps `manager` network-accessible: forces it now and whenever Qt reports NotAccessible.
// Installed once per manager; a null manager is ignored.
void forceNetworkAccessible(QNetworkAccessManager* manager);
