#pragma once
#include "ExitCodes.h"
#include "RawIo.h"

#include <CxSyntheticCamera.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <QtCore/QStringList>

class CxImageSource;
struct SxCameraDescription;

// What the run reads its frames from: picture files when any are named, else
// the built-in camera.
struct SxInputRequest
{
    // Built-in camera.
    QString camera = QStringLiteral("bayer8");
    quint32 width = 640;
    quint32 height = 480;
    quint32 seed = CxSyntheticCamera::SxConfig().seed;

    // Picture files: files, folders and wildcard patterns.
    QStringList inputs;
    bool raw = false;
    RawIo::SxRawFormat rawFormat;  // size and type; mosaic and bits come from below
    bool frameNumbersFromNames = false;
    // Auto: the frames of a sequence (more than one frame in all) are live,
    // a single picture is static.
    enum ExLiveness { LivenessAuto, LivenessLive, LivenessStatic };
    ExLiveness liveness = LivenessAuto;

    // Both.
    qint64 frames = 0;         // 0: the camera's default count, or every file
    int cfa = -1;              // -1: not given
    quint32 bitsPerSample = 0; // 0: not given
    QString cameraFile;        // camera description file

    bool readsFiles() const { return !inputs.isEmpty(); }
};

class CxInputFactory
{
    Q_DECLARE_TR_FUNCTIONS(CxInputFactory)
public:
    static constexpr qint64 DefaultCameraFrames = 8;

    static QStringList cameraKinds();
    // False, with a message, when the request names no camera this program
    // has or combines options that do not fit together. A camera description
    // (already loaded, may be null) decides the camera's mosaic: filter array
    // 1 to 6 makes it a Bayer camera, 7 a described mosaic camera, 0 a mono
    // camera in place of a mosaic one; its significant bits apply too.
    static bool cameraConfig(const SxInputRequest& request, const SxCameraDescription* description,
                             CxSyntheticCamera::SxConfig& config, QString* error);
    // The caller owns the source; null with a message and the exit status
    // (usage for option conflicts, input for files that are missing or wrong).
    // chainInput (may be null) is the input description of the chain
    // document; it describes picture files ahead of the camera description
    // file and the command line, and the built-in camera ignores it. Files
    // are scanned for their frames here.
    static CxImageSource* create(const SxInputRequest& request, const SxCameraDescription* chainInput,
                                 QString* error, ExExitCode* status);
};
