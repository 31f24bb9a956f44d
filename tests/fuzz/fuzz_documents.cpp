// The documents we take from outside: QLAR_FUZZ_KIND "chain" loads a chain
// document with every registered node's loadSettings; "camera" loads a camera
// description and reads a small raw frame through it; "node" parses a --node
// request and applies its settings.
#include "FuzzSupport.h"

#include <ChainBuilder.h>
#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxPicBufAPI.h>
#include <ImageFileReader.h>
#include <SxCameraDescription.h>

#include <memory>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz::start(argc, argv, true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QLatin1String kind(QLAR_FUZZ_KIND);
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    QString error;
    if (kind == QLatin1String("chain")) {
        SxCameraDescription input;
        qDeleteAll(CxChainDocument::loadFromString(QString::fromUtf8(bytes), &error, &input));
    } else if (kind == QLatin1String("camera")) {
        SxReadOptions options;
        options.hasCamera = options.camera.loadFromFile(fuzz::asFile(data, size, "camera.xml"), &error);
        if (!options.hasCamera)
            return 0;
        static const QByteArray frame(16 * 16, '\x40');
        options.raw = true;
        options.rawFormat.width = 16;
        options.rawFormat.height = 16;
        const QString path = fuzz::asFile(reinterpret_cast<const uint8_t*>(frame.constData()), size_t(frame.size()), "f.raw");
        SxPicBuf pic;
        CxImageMetadata meta;
        CxImageFileReader::read(path, options, pic, meta, &error);
        CxPicBufAPI::FreePicBuf(pic, true);
    } else {
        SxNodeRequest request;
        if (!CxChainBuilder::parseNodeRequest(QString::fromUtf8(bytes), request, &error))
            return 0;
        std::unique_ptr<CxChainable> node(CxChainBuilder::createNode(request.name, &error));
        if (node)
            CxChainBuilder::applySettings(node.get(), request, &error);
    }
    return 0;
}
