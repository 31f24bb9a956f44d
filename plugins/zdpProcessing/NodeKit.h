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
#include <SxPicBuf.h>

#include <QtCore/QString>

#include <exception>

namespace nodekit {

// The setter with restart: with restart set and a running chain, the chain is
// stopped, the value stored and the chain started again, so that formats are
// negotiated anew and processData never sees half a change. Without restart,
// or with the chain stopped, the value is only stored. Widgets pass true.
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

// Bytes the pixels span: every row's pitch but the last, which needs only its
// samples (a picture cut out of a larger one ends right after them).
inline quint64 requiredBytes(const SxPicBufInfo& f)
{
    if (f.width == 0 || f.height == 0)
        return 0;
    return f.effectiveLinePitch() * (f.height - 1) + f.packedLineBytes();
}

// Rows no shorter than their samples, and all of them inside the memory the
// picture says it has (a capacity of 0 is not known and not checked).
inline bool rowsFit(const SxPicBuf& pic)
{
    return pic.effectiveLinePitch() >= pic.packedLineBytes()
        && (pic.memCapacity == 0 || requiredBytes(pic) <= pic.memCapacity);
}

// Full scale of a sample, (1 << bitsPerSample) - 1, saturated at 32 bits.
inline quint64 fullScale(const SxPicBufInfo& f)
{
    return (quint64(1) << qMin<quint32>(f.bitsPerSample, 32)) - 1;
}

// "640x480 u16 x1 (12 bits) mosaic RGGB" for logs and messages.
QString describe(const SxPicBufInfo& f);

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

// Nothing is thrown across the node contract. Each node's
// queryOutputImageInfo, setupStart and processData is a function-try-block
// whose handler calls this: the failure (in practice an allocation that a
// hostile size made impossible) goes to Qt's critical stream and into the
// node's message; the call then answers false, leaves the node unstarted,
// or gives no output.
void tellFailure(CxChainable* node, const char* where, const std::exception& e);

} // namespace nodekit
