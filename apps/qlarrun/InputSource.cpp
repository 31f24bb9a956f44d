#include "InputSource.h"

namespace {

struct SxCameraKind
{
    const char* name;
    CxSyntheticCamera::ExLayout layout;
    ExImageDataType dataType;
    quint32 bitsPerSample;
};

const SxCameraKind CameraKinds[] = {
    {"mono8", CxSyntheticCamera::LayoutMono, IDT_UINT8, 8},
    {"mono16", CxSyntheticCamera::LayoutMono, IDT_UINT16, 16},
    {"bayer8", CxSyntheticCamera::LayoutBayer, IDT_UINT8, 8},
    {"bayer16", CxSyntheticCamera::LayoutBayer, IDT_UINT16, 16},
    {"rgb8", CxSyntheticCamera::LayoutRgb, IDT_UINT8, 8},
    {"rgba8", CxSyntheticCamera::LayoutRgba, IDT_UINT8, 8},
};

} // namespace

QStringList CxInputFactory::cameraKinds()
{
    QStringList names;
    for (const SxCameraKind& kind : CameraKinds)
        names << QString::fromLatin1(kind.name);
    return names;
}

bool CxInputFactory::cameraConfig(const SxInputRequest& request, CxSyntheticCamera::SxConfig& config,
                                  QString* error)
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
    config.bitsPerSample = kind->bitsPerSample;
    config.width = request.width;
    config.height = request.height;
    config.frameLimit = request.frames;
    config.fps = 0.0;  // a file-writing run wants frames as fast as the chain takes them
    config.seed = request.seed;
    if (kind->layout == CxSyntheticCamera::LayoutBayer) {
        if (request.cfa != 0) {
            if (!isTwoByTwoMosaic(quint32(request.cfa))) {
                *error = tr("--cfa %1: the mosaic pattern must be 1 to 6").arg(request.cfa);
                return false;
            }
            config.colorFilterArray = ExColorFilterArray(request.cfa);
        }
    } else {
        if (request.cfa != 0) {
            *error = tr("--cfa applies to the Bayer cameras only, not to \"%1\"").arg(request.camera);
            return false;
        }
        config.colorFilterArray = CFA_NONE;
    }
    return true;
}

CxImageSource* CxInputFactory::create(const SxInputRequest& request, QString* error)
{
    CxSyntheticCamera::SxConfig config;
    if (!cameraConfig(request, config, error))
        return nullptr;
    return new CxSyntheticCamera(config);
}
