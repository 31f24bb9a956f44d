#pragma once
#include <CxSyntheticCamera.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <QtCore/QStringList>

// What the run reads its frames from. Only the built-in camera for now; file
// and folder inputs will become further kinds of this description.
struct SxInputRequest
{
    QString camera = QStringLiteral("bayer8");
    quint32 width = 640;
    quint32 height = 480;
    qint64 frames = 8;
    int cfa = 0;  // 0: the camera's own pattern; 1..6 only for the Bayer kinds
    quint32 seed = CxSyntheticCamera::SxConfig().seed;
};

class CxInputFactory
{
    Q_DECLARE_TR_FUNCTIONS(CxInputFactory)
public:
    static QStringList cameraKinds();
    // False, with a message, when the description names no camera this
    // program has or combines options that do not fit together.
    static bool cameraConfig(const SxInputRequest& request, CxSyntheticCamera::SxConfig& config,
                             QString* error);
    // The caller owns the source; null with a message on failure.
    static CxImageSource* create(const SxInputRequest& request, QString* error);
};
