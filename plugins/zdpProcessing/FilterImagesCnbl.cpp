#include "FilterImagesCnbl.h"
#include "FilterImagesWidget.h"
#include "NodeKit.h"

#include <CxImageData.h>
#include <SxPicBuf.h>

#include <QtCore/QMutexLocker>
#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

namespace {

// Chain document attributes; the names are part of the saved-file format.
const QString kModuloAttribute = QStringLiteral("filterModulo");
const QString kRemainderAttribute = QStringLiteral("filterRemainder");

} // namespace

CxFilterImagesCnbl::CxFilterImagesCnbl()
    : CxImageProvider(ExChainableFlags(FlagProcessor))
{
}

CxFilterImagesCnbl::~CxFilterImagesCnbl() = default;

QString CxFilterImagesCnbl::title() const
{
    int modulo, remainder;
    values(modulo, remainder);
    return tr("Filter Images") + QStringLiteral(" n%") + tr("%1=%2").arg(modulo).arg(remainder);
}

bool CxFilterImagesCnbl::acceptsDataFrom(CxChainable* predecessor)
{
    return qobject_cast<CxImageProvider*>(predecessor) != nullptr;
}

int CxFilterImagesCnbl::buffersCountInMemoryPool() const
{
    return 0;
}

CxChainable* CxFilterImagesCnbl::clone()
{
    auto* copy = new CxFilterImagesCnbl;
    values(copy->m_modulo, copy->m_remainder);
    return copy;
}

QWidget* CxFilterImagesCnbl::configurationWidget()
{
    return new CxFilterImagesWidget(this);
}

bool CxFilterImagesCnbl::hasConfigurationWidget() const
{
    return true;
}

bool CxFilterImagesCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    int modulo, remainder;
    values(modulo, remainder);
    element.setAttribute(kModuloAttribute, modulo);
    element.setAttribute(kRemainderAttribute, remainder);
    return result;
}

bool CxFilterImagesCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    QMutexLocker lock(nodeMutex());
    if (element.hasAttribute(kModuloAttribute))
        m_modulo = element.attribute(kModuloAttribute, QString()).toInt(nullptr, 10);
    if (element.hasAttribute(kRemainderAttribute))
        m_remainder = element.attribute(kRemainderAttribute, QString()).toInt(nullptr, 10);
    return result;
}

int CxFilterImagesCnbl::filterModulo() const
{
    QMutexLocker lock(nodeMutex());
    return m_modulo;
}

int CxFilterImagesCnbl::filterRemainder() const
{
    QMutexLocker lock(nodeMutex());
    return m_remainder;
}

void CxFilterImagesCnbl::values(int& modulo, int& remainder) const
{
    QMutexLocker lock(nodeMutex());
    modulo = m_modulo;
    remainder = m_remainder;
}

void CxFilterImagesCnbl::setFilterModulo(int modulo, int remainder, bool restart)
{
    // The lock is held for the store only: a restart waits for processData,
    // which takes the same lock.
    nodekit::setWithRestart(this, restart, [this, modulo, remainder] {
        {
            QMutexLocker lock(nodeMutex());
            if (modulo > 0)
                m_modulo = modulo;
            if (remainder >= 0)
                m_remainder = remainder;
        }
        emit titleChanged(this);
    });
}

bool CxFilterImagesCnbl::passes(qint32 frameNumber, int modulo, int remainder)
{
    return modulo < 2 || frameNumber % modulo == remainder;
}

bool CxFilterImagesCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
try {
    out = in;
    if (outMeta)
        *outMeta = inMeta ? *inMeta : CxImageMetadata();
    return true;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "queryOutputImageInfo", e);
    return false;
}

IxChainData* CxFilterImagesCnbl::processData(IxChainData* data)
try {
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input || !input->picBuf())
        return data;
    int modulo, remainder;
    values(modulo, remainder);
    // A dropped packet is freed by the host.
    return passes(input->picBuf()->frameNumber, modulo, remainder) ? data : nullptr;
} catch (const std::exception& e) {
    nodekit::tellFailure(this, "processData", e);
    return nullptr;
}
