#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

class QObject;
class QPluginLoader;
class CxPlugin;

// Finds plug-ins on disk, loads them with QPluginLoader, reads what they say
// about themselves and calls init(). Loaded plug-ins stay loaded for the life
// of the process: the registry holds their meta-objects, and nodes made from
// them may still exist.
class QLARCORE_EXPORT CxPluginManager
{
public:
    struct SxPluginInfo
    {
        QString fileName;
        QString iid;
        QString className;
        QString name;
        QString author;
        QString description;
        QString website;
        int versionMajor = 0;
        int versionMinor = 0;
        int versionPatch = 0;
        CxPlugin* plugin = nullptr;
        QObject* instance = nullptr;
    };

    static CxPluginManager* instance();

    // Loads every library in the folder that is a CxPlugin; returns how many
    // were loaded. Files that are not plug-ins, or fail, go to errors().
    int loadFolder(const QString& folder);
    // Loads one library. A library already loaded is not initialised twice.
    bool loadFile(const QString& path, QString* error = nullptr);

    QList<SxPluginInfo> plugins() const;
    QStringList errors() const;
    void clearErrors() { m_errors.clear(); }

private:
    CxPluginManager() = default;
    QList<QPluginLoader*> m_loaders;  // kept for the life of the process, never unloaded
    QList<SxPluginInfo> m_plugins;
    QStringList m_errors;
};
