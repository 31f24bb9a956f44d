// qlarprobe PLUGIN: loads one processing plug-in by path into a program that
// links nothing but the core library, runs a few frames of the built-in
// camera through its "Deinterlace" node and checks the pictures. Prints "ok"
// and exits 0, or prints what went wrong and exits 1 (2 for bad arguments).
#include <CxChain.h>
#include <CxChainable.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>
#include <CxRTTI.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTextStream>

#include <cstring>
#include <memory>

namespace {

constexpr quint32 Width = 64;
constexpr quint32 Height = 48;
constexpr int Frames = 4;

QString tr(const char* text)
{
    return QCoreApplication::translate("qlarprobe", text);
}

int failure(const QString& message)
{
    QTextStream(stderr) << "qlarprobe: " << message << '\n';
    return 1;
}

// The node's default keeps rows 0, 2, 4, ...; compare with a picture of the
// same frame rendered independently of the chain.
QString checkPicture(const CxSyntheticCamera::SxConfig& config, const SxPicBuf& pic)
{
    if (pic.width != Width || pic.height != Height / 2)
        return tr("frame %1 is %2x%3, expected %4x%5")
            .arg(pic.frameNumber).arg(pic.width).arg(pic.height).arg(Width).arg(Height / 2);
    SxPicBuf expected;
    if (!CxPicBufAPI::AllocPicBufFromHeap(expected, Width, Height, 1, IDT_UINT8, 8, 0, 0, DSF_PACKED,
                                          CFA_NONE, false, true, 0))
        return tr("no memory for the reference picture");
    CxSyntheticCamera::renderFrame(config, pic.frameNumber, expected);
    QString problem;
    for (quint32 r = 0; r < pic.height && problem.isEmpty(); ++r) {
        if (std::memcmp(pic.rowPtr(r), expected.rowPtr(2 * r), Width) != 0)
            problem = tr("frame %1: output row %2 is not input row %3")
                          .arg(pic.frameNumber).arg(r).arg(2 * r);
    }
    CxPicBufAPI::FreePicBuf(expected, true);
    return problem;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() != 2) {
        QTextStream(stderr) << tr("usage: qlarprobe PATH/libzdpProcessing.so") << '\n';
        return 2;
    }

    QString error;
    if (!CxPluginManager::instance()->loadFile(args.at(1), &error))
        return failure(QStringLiteral("%1: %2").arg(args.at(1), error));

    CxChainable* node = CxRTTI::instance()->createChainableByCustomName(QStringLiteral("Deinterlace"));
    if (!node)
        return failure(tr("%1 registers no node \"Deinterlace\"").arg(args.at(1)));

    CxSyntheticCamera::SxConfig config;
    config.layout = CxSyntheticCamera::LayoutMono;
    config.dataType = IDT_UINT8;
    config.bitsPerSample = 8;
    config.colorFilterArray = CFA_NONE;
    config.width = Width;
    config.height = Height;
    config.frameLimit = Frames;

    auto chain = std::make_unique<CxChain>();
    chain->setRunMode(CxChain::RunSynchronous);
    chain->setSource(new CxSyntheticCamera(config));
    chain->appendNode(node);
    if (!chain->start())
        return failure(tr("the chain does not start: %1").arg(chain->lastError()));

    for (int i = 0; i < Frames; ++i) {
        std::unique_ptr<IxChainData> output(chain->step());
        const auto* image = qobject_cast<const CxImageData*>(output.get());
        if (!image)
            return failure(tr("frame %1 gave no picture").arg(i));
        if (image->picBuf()->frameNumber != i)
            return failure(tr("picture %1 carries frame number %2").arg(i).arg(image->picBuf()->frameNumber));
        const QString problem = checkPicture(config, *image->picBuf());
        if (!problem.isEmpty())
            return failure(problem);
    }
    if (!node->errorMessage().isEmpty())
        return failure(tr("Deinterlace reports: %1").arg(node->errorMessage()));
    chain->stop();

    QTextStream(stdout) << "ok\n";
    return 0;
}
