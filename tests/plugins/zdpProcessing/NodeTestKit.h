#pragma once
// What the node tests share: formats, exact-size input pictures whose every
// sample is known, and a synchronous chain around one node that counts the
// restarts a setting causes.
#include <CxChain.h>
#include <CxChainable.h>
#include <CxImageData.h>
#include <CxImageMetadata.h>
#include <CxPicBufAPI.h>

#include <QtCore/QObject>

#include <cstring>
#include <functional>
#include <type_traits>
#include <vector>

namespace nodetest {

inline SxPicBufInfo format(quint32 width, quint32 height, quint32 channels, ExImageDataType type,
                           quint32 padding = 0, ExColorFilterArray cfa = CFA_NONE,
                           ExDataStorageFormat storage = DSF_PACKED, bool isColor = false)
{
    SxPicBufInfo f;
    f.width = width;
    f.height = height;
    f.channels = channels;
    f.dataType = type;
    f.bitsPerSample = bytesPerSampleOf(type) * 8;
    f.linePitch = quint32(f.packedLineBytes()) + padding;
    f.colorFilterArray = cfa;
    f.storageFormat = storage;
    f.isColor = isColor;
    return f;
}

inline const uchar* sampleAt(const SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    return p.data + y * p.linePitch + (x * p.channels + c) * p.bytesPerSample();
}
inline uchar* sampleAt(SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    return p.data + y * p.linePitch + (x * p.channels + c) * p.bytesPerSample();
}

// One sample as a double, whatever its type.
inline double sampleValue(const SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    const uchar* at = sampleAt(p, x, y, c);
    switch (p.dataType) {
    case IDT_UINT8: return *at;
    case IDT_INT8: return *reinterpret_cast<const qint8*>(at);
    case IDT_UINT16: { quint16 v; std::memcpy(&v, at, 2); return v; }
    case IDT_INT16: { qint16 v; std::memcpy(&v, at, 2); return v; }
    case IDT_UINT32: { quint32 v; std::memcpy(&v, at, 4); return v; }
    case IDT_INT32: { qint32 v; std::memcpy(&v, at, 4); return v; }
    case IDT_FLOAT: { float v; std::memcpy(&v, at, 4); return v; }
    default: { quint64 v = 0; std::memcpy(&v, at, qMin<unsigned>(p.bytesPerSample(), 8)); return double(v); }
    }
}

// Stores v (rounded and cut to the type's range by plain conversion).
inline void setSample(SxPicBuf& p, quint64 x, quint64 y, quint64 c, double v)
{
    uchar* at = sampleAt(p, x, y, c);
    switch (p.dataType) {
    case IDT_UINT8: *at = uchar(v); break;
    case IDT_INT8: *reinterpret_cast<qint8*>(at) = qint8(v); break;
    case IDT_UINT16: { const quint16 s = quint16(v); std::memcpy(at, &s, 2); break; }
    case IDT_INT16: { const qint16 s = qint16(v); std::memcpy(at, &s, 2); break; }
    case IDT_UINT32: { const quint32 s = quint32(v); std::memcpy(at, &s, 4); break; }
    case IDT_INT32: { const qint32 s = qint32(v); std::memcpy(at, &s, 4); break; }
    case IDT_FLOAT: { const float s = float(v); std::memcpy(at, &s, 4); break; }
    default: break;
    }
}

// A picture over exactly the bytes its format needs, so that a read past its
// last row is caught by AddressSanitizer. Packets only borrow it, so one input
// can feed any number of frames.
class CxTestInput
{
public:
    using Fill = std::function<double(quint32 x, quint32 y, quint32 c)>;

    explicit CxTestInput(const SxPicBufInfo& f, const Fill& fill = Fill(),
                         const CxImageMetadata& meta = CxImageMetadata())
        : m_bytes(size_t(qMax<quint64>(f.requiredBytes(), 1)), 0), m_meta(meta)
    {
        const bool wrapped = CxPicBufAPI::WrapPicBuf(m_pic, f, m_bytes.data(), m_bytes.size());
        Q_ASSERT(wrapped);
        Q_UNUSED(wrapped);
        if (fill)
            refill(fill);
        m_pic.frameNumber = 77;
        m_pic.exposureTimeUs = 12.5f;
        m_pic.timestampMs = 4242u;
    }

    void refill(const Fill& fill)
    {
        for (quint32 y = 0; y < m_pic.height; ++y)
            for (quint32 x = 0; x < m_pic.width; ++x)
                for (quint32 c = 0; c < m_pic.channels; ++c)
                    setSample(m_pic, x, y, c, fill(x, y, c));
    }

    CxImageData* packet() const
    {
        auto* p = new CxImageData;
        p->setPicBuf(m_pic);
        p->setMetadata(&m_meta);
        return p;
    }
    SxPicBuf& pic() { return m_pic; }
    const SxPicBuf& pic() const { return m_pic; }
    CxImageMetadata& meta() { return m_meta; }

private:
    std::vector<uchar> m_bytes;
    SxPicBuf m_pic;
    CxImageMetadata m_meta;
};

// A synchronous chain around one node (owned by the chain), counting the
// restarts that settings cause.
template <class Node>
struct SxNodeRun
{
    CxChain chain;
    Node* node = new Node;
    int starts = 0;
    int stops = 0;

    explicit SxNodeRun(const SxPicBufInfo& f, const CxImageMetadata& meta = CxImageMetadata())
    {
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(f, meta);
        chain.appendNode(node);
        QObject::connect(&chain, &CxChain::started, [this] { ++starts; });
        QObject::connect(&chain, &CxChain::stoppedSignal, [this] { ++stops; });
    }
    ~SxNodeRun() { QObject::disconnect(&chain, nullptr, nullptr, nullptr); }

    // Starts the chain and forgets the counts so far.
    bool startCounted()
    {
        const bool ok = chain.start();
        starts = stops = 0;
        return ok;
    }
    // The output packet for one frame (the caller owns it), or null when the
    // node passed nothing on.
    IxChainData* push(const CxTestInput& input)
    {
        if (chain.stopped() && !chain.start())
            return nullptr;
        return chain.push(input.packet());
    }
    CxImageData* process(const CxTestInput& input) { return qobject_cast<CxImageData*>(push(input)); }
};

} // namespace nodetest
