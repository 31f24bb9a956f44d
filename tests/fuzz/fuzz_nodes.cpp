// Every registered node over a random small picture: the first bytes choose
// the node, the format (size up to 48 x 48, channels, sample type, filter
// array, significant bits), a hyperspectral description with random zones,
// patterns, cells and bands, and a few settings; the rest are the samples.
// The node's queryOutputImageInfo, setupStart and processData run on a
// synchronous chain, as the host would call them.
#include "FuzzSupport.h"

#include <PictureKit.h>

#include <CxChain.h>
#include <CxChainable.h>
#include <CxHsiCameraParams.h>
#include <CxRTTI.h>

#include <QtXml/QDomDocument>

#include <memory>

namespace {

CxHsiCameraParams randomDescription(fuzz::SxBytes& in)
{
    CxHsiCameraParams hsi;
    const int zones = 1 + in.take<uint8_t>() % 3;
    for (int z = 0; z < zones; ++z) {
        CxHsiCameraParams::CxFilterZone zone;
        zone.patternWidth = 1 + in.take<uint8_t>() % 6;
        zone.patternHeight = 1 + in.take<uint8_t>() % 6;
        zone.cellWidth = 1 + in.take<uint8_t>() % 3;
        zone.cellHeight = 1 + in.take<uint8_t>() % 3;
        const int left = in.take<uint8_t>() % 80, top = in.take<uint8_t>() % 80;
        // Right and bottom anywhere up to far past the picture, or inverted.
        const int right = int(in.take<uint16_t>()) * (in.take<uint8_t>() % 4 == 0 ? 16384 : 1) - 1;
        const int bottom = int(in.take<uint16_t>()) - 1;
        zone.rect = QRect(QPoint(left, top), QPoint(right, bottom));
        const int bands = zone.patternWidth * zone.patternHeight;
        for (int b = 0; b < bands; ++b)
            zone.bands.append(CxHsiCameraParams::CxBand(QStringLiteral("b%1").arg(b), 400.0 + in.take<uint8_t>() * 3));
        hsi.addFilterZone(zone);
    }
    return hsi;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz::start(argc, argv, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const QList<CxRTTI::SxClassEntry> nodes = CxRTTI::instance()->classes(QStringLiteral("CxChainable"));
    if (nodes.isEmpty())
        return 0;
    fuzz::SxBytes in{data, size};
    const CxRTTI::SxClassEntry& entry = nodes.at(in.take<uint8_t>() % nodes.size());

    SxPicBufInfo format;
    format.width = in.take<uint8_t>() % 49;
    format.height = in.take<uint8_t>() % 49;
    format.channels = 1 + in.take<uint8_t>() % 4;
    const ExImageDataType types[] = {IDT_UINT8, IDT_INT8, IDT_UINT16, IDT_INT16, IDT_UINT32, IDT_INT32, IDT_FLOAT, IDT_DOUBLE};
    format.dataType = types[in.take<uint8_t>() % 8];
    format.bitsPerSample = in.take<uint8_t>() % 40;
    format.colorFilterArray = ExColorFilterArray(in.take<uint8_t>() % 9);
    format.isColor = in.take<uint8_t>() % 2;
    format.storageFormat = ExDataStorageFormat(in.take<uint8_t>() % 4);
    format.linePitch = quint32(format.packedLineBytes() + in.take<uint8_t>() % 8 * format.bytesPerSample());
    CxImageMetadata meta;
    meta.updateFromPicBufInfo(&format);
    if (in.take<uint8_t>() % 2)
        meta.setHsiCameraParams(randomDescription(in));

    // Settings: each of the node's own attributes gets a small number or, at
    // times, text.
    std::unique_ptr<CxChainable> probe(CxRTTI::instance()->createChainableByUniqueId(entry.uniqueId));
    if (!probe)
        return 0;
    QDomDocument doc;
    QDomElement settings = doc.createElement(QStringLiteral("Chainable"));
    probe->saveSettings(doc, settings);
    const QDomNamedNodeMap attributes = settings.attributes();
    for (int i = 0; i < attributes.count(); ++i) {
        const QString name = attributes.item(i).toAttr().name();
        if (name == QLatin1String("maxFps"))
            continue;
        const uint8_t pick = in.take<uint8_t>();
        settings.setAttribute(name, pick == 255 ? QStringLiteral("x") : QString::number(int(pick % 40) - 4));
    }

    CxChain chain;
    chain.setRunMode(CxChain::RunSynchronous);
    chain.setInputFormat(format, meta);
    CxChainable* node = CxRTTI::instance()->createChainableByUniqueId(entry.uniqueId);
    node->loadSettings(settings);
    chain.appendNode(node);
    if (!chain.start())
        return 0;
    // The samples end where the picture does, so a read past it is caught.
    kit::CxPicture picture(format, {}, meta);
    if (!picture.pic().data)
        return 0;
    std::memcpy(picture.bytes(), in.data, qMin(in.size, picture.memory().size()));
    for (int frame = 0; frame < 3; ++frame) {
        picture.pic().frameNumber = frame;
        delete chain.push(picture.packet());
    }
    chain.stop();
    return 0;
}
