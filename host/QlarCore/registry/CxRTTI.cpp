#include "CxRTTI.h"
#include "CxChainable.h"

#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaClassInfo>
#include <QtCore/QMetaObject>

namespace {
Q_LOGGING_CATEGORY(lcRtti, "qlar.rtti")
const QString ChainableBase = QStringLiteral("CxChainable");
}

CxRTTI* CxRTTI::instance()
{
    static CxRTTI registry;
    return &registry;
}

QString CxRTTI::classInfo(const QMetaObject& mo, const char* key)
{
    const int i = mo.indexOfClassInfo(key);
    return i >= 0 ? QString::fromUtf8(mo.classInfo(i).value()) : QString();
}

bool CxRTTI::registerClass(CxPlugin* plugin, const QMetaObject& mo, const QString& baseClassName)
{
    if (mo.constructorCount() == 0) {
        qCWarning(lcRtti) << mo.className() << "has no invokable constructor; not registered";
        return false;
    }
    SxClassEntry e;
    e.plugin = plugin;
    e.metaObject = &mo;
    e.baseClassName = baseClassName;
    e.className = QString::fromLatin1(mo.className());
    e.customName = classInfo(mo, "CustomName");
    e.uniqueId = classInfo(mo, "UniqueID");

    QMutexLocker locker(&m_lock);
    for (const SxClassEntry& o : m_entries) {
        if (o.baseClassName != baseClassName)
            continue;
        if (o.metaObject == &mo || o.className == e.className) {
            qCWarning(lcRtti) << e.className << "is already registered";
            return false;
        }
        if (!e.uniqueId.isEmpty() && o.uniqueId == e.uniqueId) {
            qCWarning(lcRtti) << e.className << "uses the UniqueID of" << o.className << "; not registered";
            return false;
        }
    }
    m_entries.append(e);
    return true;
}

void CxRTTI::unregisterPlugin(CxPlugin* plugin)
{
    QMutexLocker locker(&m_lock);
    m_entries.removeIf([plugin](const SxClassEntry& e) { return e.plugin == plugin; });
}

QList<CxRTTI::SxClassEntry> CxRTTI::classes(const QString& baseClassName) const
{
    QMutexLocker locker(&m_lock);
    QList<SxClassEntry> out;
    for (const SxClassEntry& e : m_entries)
        if (e.baseClassName == baseClassName)
            out.append(e);
    return out;
}

const QMetaObject* CxRTTI::findByCustomName(const QString& base, const QString& customName) const
{
    QMutexLocker locker(&m_lock);
    for (const SxClassEntry& e : m_entries)
        if (e.baseClassName == base && e.customName == customName)
            return e.metaObject;
    return nullptr;
}

const QMetaObject* CxRTTI::findByUniqueId(const QString& base, const QString& uniqueId) const
{
    QMutexLocker locker(&m_lock);
    for (const SxClassEntry& e : m_entries)
        if (e.baseClassName == base && e.uniqueId == uniqueId)
            return e.metaObject;
    return nullptr;
}

QObject* CxRTTI::createInstance(const QMetaObject& mo) const
{
    return mo.newInstance();
}

namespace {
CxChainable* makeChainable(const CxRTTI& r, const QMetaObject* mo)
{
    if (!mo)
        return nullptr;
    QObject* o = r.createInstance(*mo);
    auto* c = qobject_cast<CxChainable*>(o);
    if (!c)
        delete o;
    return c;
}
} // namespace

CxChainable* CxRTTI::createChainableByUniqueId(const QString& uniqueId) const
{
    return makeChainable(*this, findByUniqueId(ChainableBase, uniqueId));
}

CxChainable* CxRTTI::createChainableByCustomName(const QString& customName) const
{
    return makeChainable(*this, findByCustomName(ChainableBase, customName));
}
