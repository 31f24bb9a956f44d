#include "CxPlugin.h"
#include "QlarCoreVersion.h"

CxPlugin::~CxPlugin() = default;
bool CxPlugin::init() { return true; }
void CxPlugin::finish() {}
void CxPlugin::loadSettings(QSettings*) {}
void CxPlugin::saveSettings(QSettings*) {}
QString CxPlugin::copyrightNotice() const { return QString(); }
QString CxPlugin::name() const { return QString(); }
QString CxPlugin::author() const { return QString(); }
QString CxPlugin::description() const { return QString(); }

void CxPlugin::version(int& major, int& minor, int& patch) const
{
    major = minor = patch = 0;
}

QString CxPlugin::version() const
{
    int major = 0, minor = 0, patch = 0;
    version(major, minor, patch);
    return QStringLiteral("%1.%2.%3").arg(major).arg(minor).arg(patch);
}

QString CxPlugin::website() const { return QString(); }
void CxPlugin::activeViewChanged(int) {}
void CxPlugin::viewAboutToClose(int) {}
void CxPlugin::newCameraConnected(void*) {}
void CxPlugin::cameraDisconnected(void*) {}
void CxPlugin::viewGotNewImage(int, const CxImageData*) {}
void CxPlugin::viewMouseBtnPressEvent(int, QGraphicsSceneMouseEvent*) {}
void CxPlugin::viewMouseMoveEvent(int, QGraphicsSceneMouseEvent*) {}
void CxPlugin::viewMouseBtnReleaseEvent(int, QGraphicsSceneMouseEvent*) {}
void CxPlugin::viewMouseDoubleClickEvent(int, QGraphicsSceneMouseEvent*) {}
bool CxPlugin::customCommand(const QString&, int, int, void*, void*) { return false; }
