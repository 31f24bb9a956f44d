#include "CxPluginManager.h"
#include "CxPlugin.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QPluginLoader>

CxPluginManager* CxPluginManager::instance()
{
    // Never destroyed: plug-ins stay loaded until the process ends, and their
    // loaders must stay reachable until then.
    static CxPluginManager* manager = new CxPluginManager;
    return manager;
}

int CxPluginManager::loadFolder(const QString& folder)
{
    QDir dir(folder);
    if (!dir.exists()) {
        m_errors.append(QStringLiteral("%1: plug-in folder does not exist").arg(folder));
        return 0;
    }
    int loaded = 0;
    const QFileInfoList files = dir.entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& fi : files) {
        if (!QLibrary::isLibrary(fi.fileName()))
            continue;
        if (loadFile(fi.absoluteFilePath()))
            ++loaded;
    }
    return loaded;
}

bool CxPluginManager::loadFile(const QString& path, QString* error)
{
    auto fail = [&](const QString& msg) {
        m_errors.append(msg);
        if (error)
            *error = msg;
        return false;
    };
    const QString canonical = QFileInfo(path).canonicalFilePath();
    if (canonical.isEmpty())
        return fail(QStringLiteral("%1: no such file").arg(path));
    for (const SxPluginInfo& p : m_plugins)
        if (p.fileName == canonical)
            return true;

    // Loaders are kept and never unloaded: unloading would pull the code of
    // registered classes out from under nodes that may still exist.
    auto* loader = new QPluginLoader(canonical);
    const QJsonObject meta = loader->metaData();
    QObject* obj = loader->instance();
    if (!obj) {
        const QString why = loader->errorString();
        delete loader;
        return fail(QStringLiteral("%1: %2").arg(path, why));
    }
    m_loaders.append(loader);
    CxPlugin* plugin = qobject_cast<CxPlugin*>(obj);
    if (!plugin)
        return fail(QStringLiteral("%1: not a plug-in for this host (no %2 interface)")
                        .arg(path, QString::fromLatin1(CxPlugin_iid)));

    SxPluginInfo info;
    info.fileName = canonical;
    info.iid = meta.value(QStringLiteral("IID")).toString();
    info.className = meta.value(QStringLiteral("className")).toString();
    info.plugin = plugin;
    info.instance = obj;
    info.name = plugin->name();
    info.author = plugin->author();
    info.description = plugin->description();
    info.website = plugin->website();
    plugin->version(info.versionMajor, info.versionMinor, info.versionPatch);
    if (!plugin->init())
        return fail(QStringLiteral("%1: plug-in \"%2\" failed to initialise").arg(path, info.name));
    m_plugins.append(info);
    return true;
}

QList<CxPluginManager::SxPluginInfo> CxPluginManager::plugins() const { return m_plugins; }

QStringList CxPluginManager::errors() const { return m_errors; }
