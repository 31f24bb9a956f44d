#include "CommandLine.h"

#include <QlarCoreVersion.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QRegularExpression>

namespace {

// Bigger pictures are almost certainly a typo, and their byte counts would
// strain 32-bit pitch arithmetic in the nodes.
constexpr quint32 MaxSide = 32768;

const char* const DefaultRunNode = "Deinterlace:transform=2";
const char* const DefaultRunFolder = "out/default";

} // namespace

SxRunOptions CxCommandLine::defaultRun()
{
    SxRunOptions options;
    options.defaultRun = true;
    options.input = SxInputRequest();
    options.input.camera = QStringLiteral("bayer8");
    options.input.width = 640;
    options.input.height = 480;
    options.input.frames = 8;
    SxNodeRequest node;
    QString unused;
    CxChainBuilder::parseNodeRequest(QString::fromLatin1(DefaultRunNode), node, &unused);
    options.nodes.append(node);
    options.outDir = QString::fromLatin1(DefaultRunFolder);
    return options;
}

QString CxCommandLine::exitStatusHelp()
{
    return tr("Exit status:\n"
              "  0  every frame ran and every picture was written\n"
              "  1  usage: an unknown option, a bad number or size, a --node setting that\n"
              "     is not key=value or that the node does not have\n"
              "  2  input: the chain document is missing or malformed or names an unknown\n"
              "     node, or a --node name is unknown\n"
              "  3  plug-ins or chain: the plug-in folder cannot be loaded, or a node refuses\n"
              "     the format it is given\n"
              "  4  output: the output folder, a picture or the saved chain cannot be written\n");
}

bool CxCommandLine::parseSize(const QString& text, quint32& width, quint32& height)
{
    static const QRegularExpression re(QStringLiteral("^(\\d{1,6})x(\\d{1,6})$"));
    const QRegularExpressionMatch m = re.match(text);
    if (!m.hasMatch())
        return false;
    const quint32 w = m.captured(1).toUInt();
    const quint32 h = m.captured(2).toUInt();
    if (w == 0 || h == 0 || w > MaxSide || h > MaxSide)
        return false;
    width = w;
    height = h;
    return true;
}

ExExitCode CxCommandLine::parse(const QStringList& arguments, SxRunOptions& options, QString* text)
{
    if (arguments.size() <= 1) {
        options = defaultRun();
        return ExitOk;
    }
    options = SxRunOptions();

    QCommandLineParser parser;
    parser.setApplicationDescription(
        tr("Runs a processing chain over frames of the built-in camera and writes the\n"
           "outputs as PNG files. Without any argument it runs a demonstration: a Bayer\n"
           "camera of 640x480, 8 frames, Deinterlace with odd rows first, into out/default.\n\n")
        + exitStatusHelp());
    const QCommandLineOption helpOption(QStringList{QStringLiteral("h"), QStringLiteral("help")},
                                        tr("Shows this help."));
    const QCommandLineOption versionOption(QStringLiteral("version"), tr("Shows the version."));
    const QCommandLineOption listOption(QStringLiteral("list"),
                                        tr("Lists the nodes the plug-ins offer (name, tab, unique id)."));
    const QCommandLineOption pluginsOption(QStringLiteral("plugins"),
                                           tr("Loads plug-ins from <dir> (default: $QLAR_PLUGIN_DIR, else the build tree's)."),
                                           tr("dir"));
    const QCommandLineOption chainOption(QStringLiteral("chain"), tr("Loads the chain from a chain document."),
                                         tr("file"));
    const QCommandLineOption nodeOption(QStringLiteral("node"),
                                        tr("Appends a node, e.g. \"Deinterlace:transform=2\"; repeatable."),
                                        tr("name[:key=value...]"));
    const QCommandLineOption saveChainOption(QStringLiteral("save-chain"),
                                             tr("Writes the built chain as a chain document."), tr("file"));
    const QCommandLineOption cameraOption(QStringLiteral("camera"),
                                          tr("Built-in camera: %1 (default bayer8).")
                                              .arg(CxInputFactory::cameraKinds().join(QLatin1Char('|'))),
                                          tr("kind"));
    const QCommandLineOption sizeOption(QStringLiteral("size"), tr("Frame size (default 640x480)."), tr("WxH"));
    const QCommandLineOption framesOption(QStringLiteral("frames"), tr("Number of frames (default 8)."),
                                          tr("n"));
    const QCommandLineOption cfaOption(QStringLiteral("cfa"), tr("Mosaic pattern 1..6 of the Bayer cameras."),
                                       tr("n"));
    const QCommandLineOption seedOption(QStringLiteral("seed"), tr("Noise seed of the camera."), tr("n"));
    const QCommandLineOption outOption(QStringLiteral("out"),
                                       tr("Writes the outputs into <dir> as frame_NNNNNN.png."), tr("dir"));
    const QCommandLineOption quietOption(QStringLiteral("quiet"), tr("Prints errors only."));
    parser.addOptions({helpOption, versionOption, listOption, pluginsOption, chainOption, nodeOption,
                       saveChainOption, cameraOption, sizeOption, framesOption, cfaOption, seedOption,
                       outOption, quietOption});

    if (!parser.parse(arguments)) {
        *text = parser.errorText();
        return ExitUsage;
    }
    if (parser.isSet(helpOption)) {
        options.action = SxRunOptions::ActionHelp;
        *text = parser.helpText();
        return ExitOk;
    }
    if (parser.isSet(versionOption)) {
        int major = 0, minor = 0, patch = 0;
        QlarCoreVersion(major, minor, patch);
        options.action = SxRunOptions::ActionVersion;
        *text = tr("qlarrun with QlarCore %1.%2.%3").arg(major).arg(minor).arg(patch);
        return ExitOk;
    }
    if (!parser.positionalArguments().isEmpty()) {
        *text = tr("unexpected argument \"%1\"").arg(parser.positionalArguments().first());
        return ExitUsage;
    }

    options.action = parser.isSet(listOption) ? SxRunOptions::ActionList : SxRunOptions::ActionRun;
    options.quiet = parser.isSet(quietOption);
    options.pluginDir = parser.value(pluginsOption);
    options.chainFile = parser.value(chainOption);
    options.saveChainFile = parser.value(saveChainOption);
    options.outDir = parser.value(outOption);
    for (const QString& value : parser.values(nodeOption)) {
        SxNodeRequest node;
        if (!CxChainBuilder::parseNodeRequest(value, node, text))
            return ExitUsage;
        options.nodes.append(node);
    }

    SxInputRequest& input = options.input;
    if (parser.isSet(cameraOption))
        input.camera = parser.value(cameraOption);
    if (parser.isSet(sizeOption) && !parseSize(parser.value(sizeOption), input.width, input.height)) {
        *text = tr("--size %1: expected WIDTHxHEIGHT, each 1 to %2").arg(parser.value(sizeOption)).arg(MaxSide);
        return ExitUsage;
    }
    bool ok = true;
    if (parser.isSet(framesOption)) {
        input.frames = parser.value(framesOption).toLongLong(&ok);
        if (!ok || input.frames < 1) {
            *text = tr("--frames %1: expected a positive number").arg(parser.value(framesOption));
            return ExitUsage;
        }
    }
    if (parser.isSet(cfaOption)) {
        input.cfa = parser.value(cfaOption).toInt(&ok);
        if (!ok || input.cfa < 1) {
            *text = tr("--cfa %1: the mosaic pattern must be 1 to 6").arg(parser.value(cfaOption));
            return ExitUsage;
        }
    }
    if (parser.isSet(seedOption)) {
        input.seed = parser.value(seedOption).toUInt(&ok);
        if (!ok) {
            *text = tr("--seed %1: expected a number from 0 to 4294967295").arg(parser.value(seedOption));
            return ExitUsage;
        }
    }
    CxSyntheticCamera::SxConfig config;
    if (!CxInputFactory::cameraConfig(input, config, text))
        return ExitUsage;
    return ExitOk;
}
