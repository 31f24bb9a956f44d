#include "FilterImagesCnbl.h"
#include "FilterImagesWidget.h"

#include <QtXml/QDomDocument>

namespace {

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
    nodekit::locked(this, [&] {
        m_modulo = nodekit::attribute(element, kModuloAttribute, m_modulo);
        m_remainder = nodekit::attribute(element, kRemainderAttribute, m_remainder);
    });
    return result;
}

int CxFilterImagesCnbl::filterModulo() const
{
    return nodekit::lockedGet(this, m_modulo);
}

int CxFilterImagesCnbl::filterRemainder() const
{
    return nodekit::lockedGet(this, m_remainder);
}

void CxFilterImagesCnbl::values(int& modulo, int& remainder) const
{
    nodekit::locked(this, [&] {
        modulo = m_modulo;
        remainder = m_remainder;
    });
}

void CxFilterImagesCnbl::setFilterModulo(int modulo, int remainder, bool restart)
{
    // The lock is held for the store only: a restart waits for processData,
    // which takes the same lock.
    nodekit::setWithRestart(this, restart, [this, modulo, remainder] {
        nodekit::locked(this, [&] {
            if (modulo > 0)
                m_modulo = modulo;
            if (remainder >= 0)
                m_remainder = remainder;
        });
        emit titleChanged(this);
    });
}

bool CxFilterImagesCnbl::passes(qint32 frameNumber, int modulo, int remainder)
{
    return modulo < 2 || frameNumber % modulo == remainder;
}

bool CxFilterImagesCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        return true;
    });
}

// Packets pass on as they are, so none of the frame scaffold applies.
IxChainData* CxFilterImagesCnbl::processData(IxChainData* data)
{
    auto* input = qobject_cast<CxImageData*>(data);
    if (!input || !input->picBuf())
        return data;
    int modulo, remainder;
    values(modulo, remainder);
    // A dropped packet is freed by the host.
    return passes(input->picBuf()->frameNumber, modulo, remainder) ? data : nullptr;
}
