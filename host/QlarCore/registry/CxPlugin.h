#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QString>
#include <QtCore/QtPlugin>

class QSettings;
class QGraphicsSceneMouseEvent;
class CxImageData;

// The interface every plug-in object implements next to QObject. The host
// finds it through qobject_cast after QPluginLoader::instance(). Virtual order
// is part of the binary contract with plug-ins.
class QLARCORE_EXPORT CxPlugin
{
public:
    virtual ~CxPlugin();

    virtual bool init();                                                       // 1
    virtual void finish();                                                     // 2
    virtual void loadSettings(QSettings* settings);                            // 3
    virtual void saveSettings(QSettings* settings);                            // 4
    virtual QString copyrightNotice() const;                                   // 5
    virtual QString name() const;                                              // 6
    virtual QString author() const;                                            // 7
    virtual QString description() const;                                      // 8
    virtual void version(int& major, int& minor, int& patch) const;            // 9
    virtual QString version() const;                                           // 10 "major.minor.patch"
    virtual QString website() const;                                           // 11
    virtual void activeViewChanged(int viewId);                                // 12
    virtual void viewAboutToClose(int viewId);                                 // 13
    virtual void newCameraConnected(void* camera);                             // 14
    virtual void cameraDisconnected(void* camera);                             // 15
    virtual void viewGotNewImage(int viewId, const CxImageData* image);        // 16
    virtual void viewMouseBtnPressEvent(int viewId, QGraphicsSceneMouseEvent* e);     // 17
    virtual void viewMouseMoveEvent(int viewId, QGraphicsSceneMouseEvent* e);         // 18
    virtual void viewMouseBtnReleaseEvent(int viewId, QGraphicsSceneMouseEvent* e);   // 19
    virtual void viewMouseDoubleClickEvent(int viewId, QGraphicsSceneMouseEvent* e);  // 20
    virtual bool customCommand(const QString& command, int arg1, int arg2, void* in, void* out); // 21
};

#define CxPlugin_iid "de.korvel.CxPlugin"
Q_DECLARE_INTERFACE(CxPlugin, CxPlugin_iid)
