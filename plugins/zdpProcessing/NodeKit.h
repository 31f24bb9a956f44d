#pragma once
// What the nodes share beyond the host's own operations.
//
// The viewer that loads this plug-in exports from its libraries only the
// operations nodes are meant to call. Our own host has a few conveniences
// more, and a plug-in that leaned on them would fail to load in the viewer;
// what the nodes need of that kind lives here instead, built on those
// operations or on the records' inline members. The test tst_hostimports
// keeps the plug-in's imports to the list in tests/plugins/zdpProcessing.
#include <CxChain.h>
#include <CxChainable.h>
#include <CxHsiCameraParams.h>
#include <CxImageData.h>
#include <CxImageProvider.h>
#include <CxPicBufAPI.h>
#include <SxPicBuf.h>

#include <KitPicture.h>

#include <QtCore/QMutexLocker>
#include <QtCore/QString>
#include <QtXml/QDomElement>

#include <exception>
#include <type_traits>
#include <utility>

class QListWidget;

// The overrides every node writes alike: pictures are taken from any image
// provider, the panel exists, and the pool holds poolPictures outputs.
#define NODEKIT_TAKES_PICTURES(poolPictures)                                                                \
    bool acceptsDataFrom(CxChainable* predecessor) override                                                 \
    {                                                                                                       \
        return qobject_cast<CxImageProvider*>(predecessor) != nullptr;                                      \
    }                                                                                                       \
    int buffersCountInMemoryPool() const override { return poolPictures; }
#define NODEKIT_PICTURE_NODE(poolPictures)                                                                  \
    NODEKIT_TAKES_PICTURES(poolPictures)                                                                    \
    bool hasConfigurationWidget() const override { return true; }

namespace nodekit {

// ---- Nothing is thrown across the node contract ----

// The failure (in practice an allocation that a hostile size made
// impossible) goes to Qt's critical stream and into the node's message.
void tellFailure(CxChainable* node, const char* where, const std::exception& e);

// Runs body; should it throw, the failure is told and the call answers
// "nothing": queryOutputImageInfo false, processData no output, setupStart
// leaves the node unstarted.
template <class Body>
auto guarded(CxChainable* node, const char* where, Body&& body) -> decltype(body())
{
    try {
        return body();
    } catch (const std::exception& e) {
        tellFailure(node, where, e);
        return decltype(body())();
    }
}

// ---- One frame: the scaffold of processData ----

// Where nodes differ in what they do with a packet they do not turn into a
// picture. Each node states its rules as one constant beside it.
enum Foreign : bool { ForeignDropped = false, ForeignPassed = true };     // not a picture packet
enum Stopping : bool { StoppingDropped = false, StoppingPassed = true };  // any packet while the chain stops
enum Pool : bool { PoolFixed = false, PoolGrows = true };                 // the pool picture's grow flag
// A node that answers nothing for some frames takes its pool picture itself
// (Frame::take), only when it makes one.
enum Output : bool { OutputEveryFrame = false, OutputSomeFrames = true };

struct FrameRules
{
    Foreign foreign;
    Stopping stopping;
    Pool pool;
    Output output = OutputEveryFrame;
};

// What a node's own step makes of a frame: go on with it, give no output,
// or pass the input packet on unchanged.
enum Verdict { Go, Drop, PassOn };

// A frame as the node's own step sees it: the packet, its picture and
// description, and the pool picture to fill (empty before the work).
struct Frame
{
    const CxImageData& packet;
    const SxPicBuf& in;
    const CxImageMetadata* meta;
    SxPicBuf out;

    // The pool picture of the negotiated format into out; false when the
    // pool has none free.
    bool take() { return CxPicBufAPI::AllocPicBufFromPool(node->memoryPool(), node, out, outInfo, pool); }

    CxImageProvider* node;
    SxPicBufInfo outInfo;
    Pool pool;
};

// The picture packet data is, or null with answer set to what processData
// returns instead: null for a null packet, and by the rules for a stopping
// chain and for a packet of another class.
CxImageData* pictureOf(CxChainable* node, IxChainData* data, const FrameRules& rules, IxChainData*& answer);

// The acquisition values and the host's attachments of frame onto out.
inline void stamp(SxPicBuf& out, const SxPicBuf& frame)
{
    out.exposureTimeUs = frame.exposureTimeUs;
    out.timestampMs = frame.timestampMs;
    out.copyPicAdditionalData(frame);
}

// A new packet that takes over out, with meta as its description.
CxImageData* wrap(const SxPicBuf& out, const CxImageMetadata& meta);

// The end of every frame that made a picture: out stamped from in, wrapped,
// the input packet freed; the new packet is what processData returns.
IxChainData* deliver(IxChainData* data, SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata& meta);

// The whole frame: the packet checks by the rules; admit (the node's checks
// before negotiating, which may tell the user why a picture passes on);
// the output format through the node's queryOutputImageInfo (a refusal, or
// a picture without pixels, gives no output and keeps the input); the pool
// picture (unless the node takes it); work, which fills frame.out; delivery.
// A pool picture that work does not use goes back to the pool.
template <class Admit, class Work>
IxChainData* processFrame(CxImageProvider* node, IxChainData* data, const FrameRules& rules, Admit&& admit,
                          Work&& work)
{
    return guarded(node, "processData", [&]() -> IxChainData* {
        IxChainData* answer = nullptr;
        const CxImageData* input = pictureOf(node, data, rules, answer);
        if (!input)
            return answer;
        Frame frame{*input, *input->picBuf(), input->metadata(), SxPicBuf(), node, SxPicBufInfo(), rules.pool};
        const Verdict admitted = admit(static_cast<const Frame&>(frame));
        if (admitted != Go)
            return admitted == PassOn ? data : nullptr;

        CxImageMetadata outMeta;
        if (!node->queryOutputImageInfo(frame.in, frame.outInfo, frame.meta, &outMeta) || !frame.in.data)
            return nullptr;
        if (rules.output == OutputEveryFrame && !frame.take())
            return nullptr;
        const Verdict made = work(frame);
        if (made != Go) {
            CxPicBufAPI::FreePicBuf(frame.out, true);
            return made == PassOn ? data : nullptr;
        }
        return deliver(data, frame.out, frame.in, outMeta);
    });
}

// Nodes that take every picture as it comes.
template <class Work>
IxChainData* processFrame(CxImageProvider* node, IxChainData* data, const FrameRules& rules, Work&& work)
{
    return processFrame(node, data, rules, [](const Frame&) { return Go; }, std::forward<Work>(work));
}

// The message the user sees about a picture the node passes on: only the
// first one stays until it is cleared.
void tell(CxChainable* node, const QString& message);

// The output format and description of a node that leaves them as they
// come (nodes change what they change afterwards).
inline void passFormat(const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                       CxImageMetadata* outMeta)
{
    out = in;
    if (outMeta)
        *outMeta = inMeta ? *inMeta : CxImageMetadata();
}

// An 8-bit blue-first colour picture with alpha, the form in which nodes
// show a result as colours; size and pitch stay the caller's.
inline void makeColour8(SxPicBufInfo& f)
{
    f.channels = 4;
    f.bitsPerSample = 8;
    f.dataType = IDT_UINT8;
    f.storageFormat = DSF_PACKED;
    f.colorFilterArray = CFA_NONE;
    f.isColor = true;
}

// ---- Settings ----

// The setter with restart: with restart set and a running chain, the chain is
// stopped, the value stored and the chain started again, so that formats are
// negotiated anew and processData never sees half a change. Without restart,
// or with the chain stopped, the value is only stored. Widgets and quick
// buttons pass true.
template <class Store>
void setWithRestart(const CxChainable* node, bool restart, Store&& store)
{
    CxChain* chain = restart ? node->chain() : nullptr;
    if (!chain || chain->stopped()) {
        store();
        return;
    }
    chain->stop();
    store();
    chain->start();
}

// Settings the panel reads and writes while frames flow: each access holds
// the node's recursive lock for that access only, so a getter may be called
// by processData while it holds the lock around a whole frame.
template <class Access>
auto locked(const CxChainable* node, Access&& access)
{
    QMutexLocker lock(node->nodeMutex());
    return access();
}

template <class T>
T lockedGet(const CxChainable* node, const T& field)
{
    return locked(node, [&] { return field; });
}

// True when the value changed (setters that change the title then say so).
template <class T>
bool lockedSet(const CxChainable* node, T& field, T value)
{
    return locked(node, [&] {
        const bool changed = !(field == value);
        field = value;
        return changed;
    });
}

// Attribute names, misspellings included, are part of the saved-file format.
// Every setting is one attribute on the node's own element, numbers and
// booleans as decimal integers. On load a missing attribute keeps the
// current value, and text that is not a number of the field's type loads as
// 0 (ok, when given, is false then and true otherwise). A node whose rule
// differs says so where it reads.
template <class T>
T attribute(const QDomElement& element, const QString& name, T current, bool* ok = nullptr)
{
    static_assert(!std::is_same_v<T, bool>, "booleans say which texts mean on");
    if (ok)
        *ok = true;
    if (!element.hasAttribute(name))
        return current;
    const QString text = element.attribute(name, QString());
    if constexpr (std::is_enum_v<T>)
        return T(text.toInt(ok, 10));
    else if constexpr (std::is_same_v<T, int>)
        return text.toInt(ok, 10);
    else if constexpr (std::is_same_v<T, unsigned int>)
        return text.toUInt(ok, 10);
    else if constexpr (std::is_same_v<T, qint64>)
        return text.toLongLong(ok, 10);
    else
        return text.toDouble(ok);
}

// Which numbers mean "on" has never been the same in every node.
enum class On { AboveZero, NonZero, UnlessTextIsZero };
bool attribute(const QDomElement& element, const QString& name, bool current, On rule, bool* ok = nullptr);

// ---- Pictures ----

// The picture predicates every kernel shares (host and plug-in alike).
using pixelkit::fullScale;
using pixelkit::requiredBytes;
using pixelkit::rowsFit;

// "640x480 u16 x1 (12 bits) mosaic RGGB" for logs and messages.
QString describe(const SxPicBufInfo& f);

// The colour of cell 0..3 (row by row from the top-left) of the 2x2 mosaic
// cfa (1..6), translated in the node's context: "Red", or "Green 1" and
// "Green 2" where a colour has two cells.
QString cellColourName(const char* context, quint32 cfa, int cell);

// ---- Panels ----

// A panel's channel list: one row per name, holding its channel index under
// Qt::UserRole; the row of the current channel selected and in view.
void fillChannelList(QListWidget* list, const QList<QString>& names, const QList<int>& indices, int current);

// ---- Hyperspectral descriptions ----

// A copy of the camera's first filter zone (the band list is shared, not
// copied); false when the camera has no zone.
bool firstFilterZone(const CxHsiCameraParams& hsi, CxHsiCameraParams::CxFilterZone& zone);

// Size of one band of zone cut out of a picture of inWidth x inHeight: the
// zone's rectangle, or the whole picture when the rectangle is inverted,
// divided by the pattern period (a period that is not positive does not
// divide). Extract Channel, FFT 1D and FFT 2D all cut bands this size.
// With insidePicture the rectangle is first clipped to the picture, so that
// a description reaching past the frame never sizes a work buffer beyond
// the samples there are (0 x 0 when the zone misses the picture).
void bandSize(const CxHsiCameraParams::CxFilterZone& zone, quint32 inWidth, quint32 inHeight,
              quint32& width, quint32& height, bool insidePicture = false);

} // namespace nodekit

// Band totalBandIdx of a hyperspectral mosaic into out, for T in unsigned
// char, unsigned short, unsigned int and float; Extract Channel's band
// kernel, which the spectrum and median nodes cut their bands with too.
// False, with out untouched, when the band has no zone, the zone has no
// usable pattern, or either picture lacks pixels or holds samples of another
// width than T.
template <class T>
bool extr_extractHsiChannel_T(SxPicBuf& out, const SxPicBuf& in, const CxImageMetadata* meta,
                              int totalBandIdx);
