#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>

struct QMetaObject;
class QObject;
class CxPlugin;
class CxChainable;

// The process-wide class registry. Plug-ins register their classes under a
// base-class name ("CxChainable" for nodes); the host lists them, looks them
// up by the class infos "CustomName" (shown to users) and "UniqueID" (stored
// in chain documents, compared exactly as stored, case included) and creates
// instances through the meta-object's invokable default constructor.
class QLARCORE_EXPORT CxRTTI
{
public:
    struct SxClassEntry
    {
        CxPlugin* plugin = nullptr;
        const QMetaObject* metaObject = nullptr;
        QString baseClassName;
        QString className;
        QString customName;
        QString uniqueId;
    };

    static CxRTTI* instance();

    // False when the class is already registered under that base, has no
    // invokable constructor, or its UniqueID is taken by another class.
    bool registerClass(CxPlugin* plugin, const QMetaObject& metaObject, const QString& baseClassName);
    // Forgets every class the plug-in registered.
    void unregisterPlugin(CxPlugin* plugin);

    // In registration order.
    QList<SxClassEntry> classes(const QString& baseClassName) const;
    const QMetaObject* findByCustomName(const QString& baseClassName, const QString& customName) const;
    const QMetaObject* findByUniqueId(const QString& baseClassName, const QString& uniqueId) const;

    QObject* createInstance(const QMetaObject& metaObject) const;
    // Null when no node class has that identifier.
    CxChainable* createChainableByUniqueId(const QString& uniqueId) const;
    CxChainable* createChainableByCustomName(const QString& customName) const;

    static QString classInfo(const QMetaObject& metaObject, const char* key);

private:
    CxRTTI() = default;
    mutable QMutex m_lock;
    QList<SxClassEntry> m_entries;
};
