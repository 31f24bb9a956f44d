#include "InputSource.h"

#include "CameraDescription.h"
#include "FileSource.h"
#include "ImageFileReader.h"

#include <memory>

namespace {

struct SxCameraKind
{
    const char* name;
    CxSyntheticCamera::ExLayout layout;
    ExImageDataType dataType;
};

const SxCameraKind CameraKinds[] = {
    {"mono8", CxSyntheticCamera::LayoutMono, IDT_UINT8},
    {"mono16", CxSyntheticCamera::LayoutMono, IDT_UINT16},
    {"rgb8", CxSyntheticCamera::LayoutRgb, IDT_UINT8},
    {"rgb16", CxSyntheticCamera::LayoutRgb, IDT_UINT16},
    {"rgba8", CxSyntheticCamera::LayoutRgba, IDT_UINT8},
    {"rgba16", CxSyntheticCamera::LayoutRgba, IDT_UINT16},
    {"bayer8", CxSyntheticCamera::LayoutBayer, IDT_UINT8},
    {"bayer16", CxSyntheticCamera::LayoutBayer, IDT_UINT16},
    {"rgbnir8", CxSyntheticCamera::LayoutRgbNir, IDT_UINT8},
    {"rgbnir16", CxSyntheticCamera::LayoutRgbNir, IDT_UINT16},
    {"hsi8", CxSyntheticCamera::LayoutHsi, IDT_UINT8},
    {"hsi16", CxSyntheticCamera::LayoutHsi, IDT_UINT16},
};

bool isOneChannelMosaic(CxSyntheticCamera::ExLayout layout)
{
    return layout == CxSyntheticCamera::LayoutBayer || layout == CxSyntheticCamera::LayoutRgbNir
        || layout == CxSyntheticCamera::LayoutHsi;
}

} // namespace

QStringList CxInputFactory::cameraKinds()
{
    QStringList names;
    for (const SxCameraKind& kind : CameraKinds)
        names << QString::fromLatin1(kind.name);
    return names;
}

bool CxInputFactory::cameraConfig(const SxInputRequest& request, const SxCameraDescription* description,
                                  CxSyntheticCamera::SxConfig& config, QString* error)
{
    const SxCameraKind* kind = nullptr;
    for (const SxCameraKind& k : CameraKinds) {
        if (request.camera == QLatin1String(k.name))
            kind = &k;
    }
    if (!kind) {
        *error = tr("unknown camera \"%1\" (one of: %2)").arg(request.camera, cameraKinds().join(QLatin1String(", ")));
        return false;
    }
    config = CxSyntheticCamera::SxConfig();
    config.layout = kind->layout;
    config.dataType = kind->dataType;
    config.width = request.width;
    config.height = request.height;
    config.frameLimit = request.frames > 0 ? request.frames : DefaultCameraFrames;
    config.fps = 0.0;  // a file-writing run wants frames as fast as the chain takes them
    config.seed = request.seed;

    const quint32 typeBits = bytesPerSampleOf(kind->dataType) * 8;
    config.bitsPerSample = typeBits;
    if (description && description->hasColorFilterArray) {
        const ExColorFilterArray cfa = description->colorFilterArray;
        if (cfa == CFA_HSI_MOSAIC) {
            config.layout = CxSyntheticCamera::LayoutHsi;
            config.hsi = description->hsi;
        } else if (isTwoByTwoMosaic(cfa)) {
            config.layout = CxSyntheticCamera::LayoutBayer;
            config.colorFilterArray = cfa;
        } else if (isOneChannelMosaic(config.layout)) {
            config.layout = CxSyntheticCamera::LayoutMono;
        }
    }
    const quint32 bits = request.bitsPerSample ? request.bitsPerSample : description ? description->bitsPerSample : 0;
    if (bits) {
        if (bits > typeBits) {
            *error = tr("%1 significant bits do not fit the %2-bit samples of camera \"%3\"")
                         .arg(bits).arg(typeBits).arg(request.camera);
            return false;
        }
        config.bitsPerSample = bits;
    }
    if (request.cfa >= 0) {
        if (config.layout != CxSyntheticCamera::LayoutBayer) {
            *error = tr("--cfa applies to the Bayer cameras only, not to \"%1\"").arg(request.camera);
            return false;
        }
        if (!isTwoByTwoMosaic(quint32(request.cfa))) {
            *error = tr("--cfa %1: the mosaic pattern of a Bayer camera must be 1 to 6").arg(request.cfa);
            return false;
        }
        config.colorFilterArray = ExColorFilterArray(request.cfa);
    }
    return true;
}

CxImageSource* CxInputFactory::create(const SxInputRequest& request, const SxCameraDescription* chainInput,
                                      QString* error, ExExitCode* status)
{
    SxCameraDescription description;
    if (!request.cameraFile.isEmpty() && !description.loadFromFile(request.cameraFile, error)) {
        *status = ExitInput;
        return nullptr;
    }
    const SxCameraDescription* camera = request.cameraFile.isEmpty() ? nullptr : &description;
    if (!request.readsFiles()) {
        CxSyntheticCamera::SxConfig config;
        if (!cameraConfig(request, camera, config, error)) {
            *status = ExitUsage;
            return nullptr;
        }
        return new CxSyntheticCamera(config);
    }

    QStringList files;
    if (!CxImageFileReader::listInputs(request.inputs, request.raw, files, error)) {
        *status = ExitInput;
        return nullptr;
    }
    SxReadOptions options;
    options.raw = request.raw;
    options.rawFormat = request.rawFormat;
    options.hasChainInput = chainInput != nullptr;
    if (chainInput)
        options.chainInput = *chainInput;
    options.hasCamera = camera != nullptr;
    options.camera = description;
    options.colorFilterArray = request.cfa;
    options.bitsPerSample = request.bitsPerSample;
    auto source = std::make_unique<CxFileSource>(files, options, request.frameNumbersFromNames, request.frames,
                                                 request.liveness);
    if (!source->scan(error)) {
        *status = ExitInput;
        return nullptr;
    }
    return source.release();
}
