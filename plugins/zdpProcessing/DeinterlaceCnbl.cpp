#include "DeinterlaceCnbl.h"
#include "DeinterlaceWidget.h"

#include <QtXml/QDomDocument>

#include <cstring>

namespace {

const QString kTransformAttribute = QStringLiteral("transform");

// The output height follows the transform, which may change between
// restarts, so the pool picture is allowed to grow.
constexpr nodekit::FrameRules kFrame{nodekit::ForeignDropped, nodekit::StoppingDropped, nodekit::PoolGrows};

// Rows in the first block of the two resorting transforms: the odd-first
// order starts with the ceil(h/2) rows 0, 2, 4, ..., the even-first order
// with the floor(h/2) rows 1, 3, 5, ...
quint64 firstBlockRows(CxDeinterlaceCnbl::ExTransformType transform, quint64 h)
{
    return transform == CxDeinterlaceCnbl::TransformOddFirst ? (h >> 1) + (h & 1) : h >> 1;
}

quint64 sourceRow(CxDeinterlaceCnbl::ExTransformType transform, quint64 r, quint64 firstBlock)
{
    switch (transform) {
    case CxDeinterlaceCnbl::TransformOddRows:
        return 2 * r;
    case CxDeinterlaceCnbl::TransformEvenRows:
        return 2 * r + 1;
    case CxDeinterlaceCnbl::TransformOddFirst:
        return r < firstBlock ? 2 * r : 2 * (r - firstBlock) + 1;
    case CxDeinterlaceCnbl::TransformEvenFirst:
        return r < firstBlock ? 2 * r + 1 : 2 * (r - firstBlock);
    }
    // A stored value outside the four passes the rows through in order.
    return r;
}

} // namespace

CxDeinterlaceCnbl::CxDeinterlaceCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxDeinterlaceCnbl::~CxDeinterlaceCnbl() = default;

QString CxDeinterlaceCnbl::title() const
{
    return tr("Deinterlace");
}

CxChainable* CxDeinterlaceCnbl::clone()
{
    auto* copy = new CxDeinterlaceCnbl;
    copy->m_transform = m_transform;
    return copy;
}

QWidget* CxDeinterlaceCnbl::configurationWidget()
{
    return new CxDeinterlaceWidget(this);
}

void CxDeinterlaceCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                                 bool& hasButtons)
{
    // The labels spell the first input rows of the output; they are fixed
    // symbols, not words, and are not translated.
    static const struct {
        const char* label;
        ExTransformType transform;
    } choices[] = {
        {"02", TransformOddRows},
        {"13", TransformEvenRows},
        {"0213", TransformOddFirst},
        {"1302", TransformEvenFirst},
    };
    for (const auto& choice : choices)
        buttons.append(CxSimpleStateConfigButton(QString::fromLatin1(choice.label), choice.transform,
                                                 true, m_transform == choice.transform));
    hasButtons = true;
}

void CxDeinterlaceCnbl::simpleStateConfigButtonPressed(int id)
{
    setTransform(ExTransformType(id), true);
}

bool CxDeinterlaceCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kTransformAttribute, int(m_transform));
    return result;
}

bool CxDeinterlaceCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    m_transform = nodekit::attribute(element, kTransformAttribute, m_transform);
    return result;
}

QString CxDeinterlaceCnbl::help(QString& anchor)
{
    return tr("Deinterlaces the frame.<br>It can either extract odd/even rows or reoder them.");
}

void CxDeinterlaceCnbl::setTransform(ExTransformType transform, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, transform] { m_transform = transform; });
}

bool CxDeinterlaceCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                             const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        const quint32 h = in.height;
        if (m_transform == TransformOddRows)
            out.height = (h >> 1) + (h & 1);
        else if (m_transform == TransformEvenRows)
            out.height = h >> 1;
        return true;
    });
}

void CxDeinterlaceCnbl::deinterlaceRows(const SxPicBuf& in, SxPicBuf& out, ExTransformType transform)
{
    const quint64 inHeight = in.height;
    const quint64 outHeight = out.height;
    if (!in.data || !out.data || inHeight == 0 || outHeight == 0)
        return;

    const quint64 firstBlock = firstBlockRows(transform, inHeight);
    const quint64 rowBytes = qMin(in.linePitch, out.linePitch);
    const quint64 inLastRowBytes = qMin(rowBytes, in.packedLineBytes());
    const quint64 outLastRowBytes = qMin(rowBytes, out.packedLineBytes());

    for (quint64 r = 0; r < outHeight; ++r) {
        const quint64 s = sourceRow(transform, r, firstBlock);
        // Only an output taller than the transform yields (a format a
        // subclass changed) can ask for a row the input does not have.
        if (s >= inHeight)
            continue;
        quint64 n = rowBytes;
        if (s == inHeight - 1)
            n = qMin(n, inLastRowBytes);
        if (r == outHeight - 1)
            n = qMin(n, outLastRowBytes);
        std::memcpy(out.data + r * out.linePitch, in.data + s * in.linePitch, size_t(n));
    }
}

IxChainData* CxDeinterlaceCnbl::processData(IxChainData* data)
{
    return nodekit::processFrame(this, data, kFrame, [this](nodekit::Frame& f) {
        deinterlaceRows(f.in, f.out, m_transform);
        return nodekit::Go;
    });
}
