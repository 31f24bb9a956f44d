#include "CommandLine.h"

#include <QlarCoreVersion.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QRegularExpression>

#include <limits>

namespace {

// Bigger camera frames are almost certainly a typo, and their byte counts
// would strain 32-bit pitch arithmetic in the nodes.
constexpr quint32 MaxSide = 32768;

const char* const DefaultRunFolder = "out/default";

// The demonstration runs, one chain each over the synthetic Bayer camera.
struct SxDefaultChain
{
    const char* folder;  // under DefaultRunFolder
    const char* label;
    const char* nodes[4];
};

const SxDefaultChain DefaultChains[] = {
    {"green", QT_TRANSLATE_NOOP("CxCommandLine", "Extract Channel keeps the first green cell of every 2x2 cell"),
     {"Extract Channel:channelIdx=1"}},
    // The camera's bars slide sideways, so the horizontal profile (the mean
    // of each column) holds their period: 32 pixels, 16 green cells.
    {"spectrum",
     QT_TRANSLATE_NOOP("CxCommandLine",
                       "FFT 1D plots the amplitude spectrum of the green cells' horizontal profile (the mean of each "
                       "column) without its mean, which peaks at the bars' period"),
     {"Extract Channel:channelIdx=1", "Fast Fourier Transform 1D:transtype=0:includeDC=0"}},
    {"noise",
     QT_TRANSLATE_NOOP("CxCommandLine",
                       "Image Averaging takes the standard deviation of every 4 frames; LUT Mapping stretches it "
                       "automatically into viridis colours"),
     {"Image Averaging:averageCount=4:mode=1", "LUT Mapping:AutoMinMax=1:PseudoColor=3:MapToRGB=1"}},
};

} // namespace

QString CxCommandLine::defaultFolder()
{
    return QString::fromLatin1(DefaultRunFolder);
}

QList<SxRunOptions> CxCommandLine::defaultRuns()
{
    QList<SxRunOptions> runs;
    for (const SxDefaultChain& chain : DefaultChains) {
        SxRunOptions options;
        options.defaultRun = true;
        options.label = tr(chain.label);
        options.input.camera = QStringLiteral("bayer8");
        options.input.width = 640;
        options.input.height = 480;
        options.input.frames = CxInputFactory::DefaultCameraFrames;
        for (const char* text : chain.nodes) {
            if (!text)
                break;
            SxNodeRequest node;
            QString unused;
            CxChainBuilder::parseNodeRequest(QString::fromLatin1(text), node, &unused);
            options.nodes.append(node);
        }
        options.output.folder = defaultFolder() + QLatin1Char('/') + QString::fromLatin1(chain.folder);
        options.output.png = true;
        runs.append(options);
    }
    return runs;
}

QString CxCommandLine::exitStatusHelp()
{
    return tr("Exit status:\n"
              "  0  every frame ran and every output was written\n"
              "  1  usage: an unknown option, a bad number or size, options that do not go\n"
              "     together, a --node setting that is not key=value, that the node does not\n"
              "     have, or whose value the node does not take\n"
              "  2  input: a picture file, folder or pattern that is missing, unreadable,\n"
              "     truncated or of a kind not read here, a raw frame whose size does not\n"
              "     match, a camera description or chain document that is missing or\n"
              "     malformed, an unknown node name (in a document, --node or --describe)\n"
              "  3  plug-ins or chain: the plug-in folder cannot be loaded, a node refuses\n"
              "     the format it is given, or a node fails\n"
              "  4  output: the output folder, a picture or the saved chain cannot be written\n"
              "     (nothing partial is left under its name)\n"
              "  5  --strict only: a node passed frames on unprocessed or dropped them, or an\n"
              "     output was empty or had no file form\n");
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
    options = SxRunOptions();
    if (arguments.size() <= 1) {
        options.defaultRun = true;
        return ExitOk;
    }

    QString demonstration;
    for (const SxDefaultChain& chain : DefaultChains)
        demonstration += QStringLiteral("  %1/%2: %3\n")
                             .arg(QLatin1String(DefaultRunFolder), QLatin1String(chain.folder), tr(chain.label));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        tr("Runs a processing chain of plug-in nodes over picture files or the built-in\n"
           "camera and writes every output as a TIFF with its exact samples (and PNG on\n"
           "request), named by frame number.\n"
           "\n"
           "Without any argument it runs the demonstration over the Bayer camera\n"
           "(640x480, 8 frames):\n")
        + demonstration
        + tr("\n"
             "Inputs are TIFF (8/16/32-bit integers, 32-bit float; 1, 3 or 4 channels),\n"
             "PNG (8/16-bit), binary PGM/PPM, or raw frames (--raw); folders and patterns\n"
             "are read in name order (frame_9 before frame_10).\n"
             "\n")
        + exitStatusHelp());
    parser.addPositionalArgument(QStringLiteral("inputs"),
                                 tr("Picture files, folders or patterns such as \"frames/*.tif\"; none: the camera."),
                                 tr("[inputs...]"));
    const QCommandLineOption helpOption(QStringList{QStringLiteral("h"), QStringLiteral("help")},
                                        tr("Shows this help."));
    const QCommandLineOption versionOption(QStringLiteral("version"), tr("Shows the version."));
    const QCommandLineOption listOption(QStringLiteral("list"),
                                        tr("Lists the nodes: name, unique id and help, tab-separated."));
    const QCommandLineOption describeOption(QStringLiteral("describe"),
                                            tr("Shows a node's help and its default settings as XML."), tr("node"));
    const QCommandLineOption pluginsOption(QStringLiteral("plugins"),
                                           tr("Loads plug-ins from <dir> (default: $QLAR_PLUGIN_DIR, else the build tree's)."),
                                           tr("dir"));
    const QCommandLineOption chainOption(QStringLiteral("chain"), tr("Loads the chain from a chain document."),
                                         tr("file"));
    const QCommandLineOption nodeOption(QStringLiteral("node"),
                                        tr("Appends a node, e.g. \"Extract Channel:channelIdx=1\"; repeatable."),
                                        tr("name[:key=value...]"));
    const QCommandLineOption saveChainOption(QStringLiteral("save-chain"),
                                             tr("Writes the built chain as a chain document."), tr("file"));
    const QCommandLineOption cameraOption(QStringLiteral("camera"),
                                          tr("Built-in camera: %1 (default bayer8).")
                                              .arg(CxInputFactory::cameraKinds().join(QLatin1Char('|'))),
                                          tr("kind"));
    const QCommandLineOption sizeOption(QStringLiteral("size"), tr("Camera frame size (default 640x480)."),
                                        tr("WxH"));
    const QCommandLineOption seedOption(QStringLiteral("seed"), tr("Noise seed of the camera."), tr("n"));
    const QCommandLineOption framesOption(QStringLiteral("frames"),
                                          tr("Frames to run (default: 8 from the camera, every file)."), tr("n"));
    const QCommandLineOption cfaOption(QStringLiteral("cfa"),
                                       tr("Filter array: 1..6 for the Bayer cameras; 0..7 for files (7 needs a "
                                          "hyperspectral description)."),
                                       tr("n"));
    const QCommandLineOption bitsOption(QStringLiteral("bits"), tr("Significant bits per sample."), tr("n"));
    const QCommandLineOption rawOption(QStringLiteral("raw"),
                                       tr("Reads every input as a raw one-channel frame of this size."), tr("WxH"));
    const QCommandLineOption rawTypeOption(QStringLiteral("raw-type"),
                                           tr("Sample type of raw frames: %1 (default u8).").arg(RawIo::typeNames()),
                                           tr("type"));
    const QCommandLineOption cameraFileOption(QStringLiteral("camera-file"),
                                              tr("Camera description (filter array, significant bits, "
                                                 "hyperspectral layout)."),
                                              tr("file"));
    const QCommandLineOption numbersOption(QStringLiteral("numbers-from-names"),
                                           tr("Takes each frame number from the last number in its file name."));
    const QCommandLineOption outOption(QStringLiteral("out"),
                                       tr("Writes the outputs into <dir> as frame_NNNNNN.tif."), tr("dir"));
    const QCommandLineOption pngOption(QStringLiteral("png"),
                                       tr("Also writes frame_NNNNNN.png for 8- and 16-bit outputs."));
    const QCommandLineOption compressOption(QStringLiteral("compress"), tr("Writes deflate-compressed TIFFs."));
    const QCommandLineOption summaryOption(QStringLiteral("summary"),
                                           tr("Prints one line per output: frame, size, type, channels, min, max, "
                                              "mean (also with --quiet)."));
    const QCommandLineOption liveOption(QStringLiteral("live"),
                                        tr("Treats the frames of picture files as live frames (default for a "
                                           "sequence of frames)."));
    const QCommandLineOption staticOption(QStringLiteral("static"),
                                          tr("Treats the frames of picture files as static pictures (default for a "
                                             "single picture)."));
    const QCommandLineOption strictOption(QStringLiteral("strict"),
                                          tr("Fails (status 5) when a node passed frames on unprocessed or dropped "
                                             "them, or an output was empty or not writable."));
    const QCommandLineOption quietOption(QStringLiteral("quiet"), tr("Prints errors only; no progress bar."));
    parser.addOptions({helpOption, versionOption, listOption, describeOption, pluginsOption, chainOption,
                       nodeOption, saveChainOption, cameraOption, sizeOption, seedOption, framesOption, cfaOption,
                       bitsOption, rawOption, rawTypeOption, cameraFileOption, numbersOption, liveOption,
                       staticOption, outOption, pngOption, compressOption, summaryOption, strictOption,
                       quietOption});

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

    const auto usage = [text](const QString& message) {
        *text = message;
        return ExitUsage;
    };
    const auto number = [&](const QCommandLineOption& option, qint64 low, qint64 high, qint64& value) {
        bool ok = false;
        value = parser.value(option).toLongLong(&ok);
        return ok && value >= low && value <= high;
    };

    options.action = parser.isSet(listOption)       ? SxRunOptions::ActionList
                     : parser.isSet(describeOption) ? SxRunOptions::ActionDescribe
                                                    : SxRunOptions::ActionRun;
    options.describeNode = parser.value(describeOption);
    options.quiet = parser.isSet(quietOption);
    options.strict = parser.isSet(strictOption);
    options.pluginDir = parser.value(pluginsOption);
    options.chainFile = parser.value(chainOption);
    options.saveChainFile = parser.value(saveChainOption);
    options.output.folder = parser.value(outOption);
    options.output.png = parser.isSet(pngOption);
    options.output.deflate = parser.isSet(compressOption);
    options.output.summary = parser.isSet(summaryOption);
    for (const QString& value : parser.values(nodeOption)) {
        SxNodeRequest node;
        if (!CxChainBuilder::parseNodeRequest(value, node, text))
            return ExitUsage;
        options.nodes.append(node);
    }

    SxInputRequest& input = options.input;
    input.inputs = parser.positionalArguments();
    const bool files = input.readsFiles();
    for (const QCommandLineOption* cameraOnly : {&cameraOption, &sizeOption, &seedOption}) {
        if (files && parser.isSet(*cameraOnly))
            return usage(tr("--%1 is for the built-in camera, not for picture files").arg(cameraOnly->names().first()));
    }
    for (const QCommandLineOption* filesOnly : {&rawOption, &rawTypeOption, &numbersOption, &liveOption,
                                                &staticOption}) {
        if (!files && parser.isSet(*filesOnly))
            return usage(tr("--%1 needs picture files to read").arg(filesOnly->names().first()));
    }
    if (parser.isSet(liveOption) && parser.isSet(staticOption))
        return usage(tr("--live and --static exclude each other"));
    if (parser.isSet(liveOption))
        input.liveness = SxInputRequest::LivenessLive;
    else if (parser.isSet(staticOption))
        input.liveness = SxInputRequest::LivenessStatic;
    if (parser.isSet(cameraOption))
        input.camera = parser.value(cameraOption);
    if (parser.isSet(sizeOption) && !parseSize(parser.value(sizeOption), input.width, input.height))
        return usage(tr("--size %1: expected WIDTHxHEIGHT, each 1 to %2").arg(parser.value(sizeOption)).arg(MaxSide));
    qint64 value = 0;
    if (parser.isSet(framesOption)) {
        if (!number(framesOption, 1, std::numeric_limits<qint32>::max(), value))
            return usage(tr("--frames %1: expected a positive number").arg(parser.value(framesOption)));
        input.frames = value;
    }
    if (parser.isSet(seedOption)) {
        if (!number(seedOption, 0, std::numeric_limits<quint32>::max(), value))
            return usage(tr("--seed %1: expected a number from 0 to 4294967295").arg(parser.value(seedOption)));
        input.seed = quint32(value);
    }
    if (parser.isSet(cfaOption)) {
        if (!number(cfaOption, 0, CFA_HSI_MOSAIC, value))
            return usage(tr("--cfa %1: the filter array must be 0 to 7").arg(parser.value(cfaOption)));
        input.cfa = int(value);
    }
    if (parser.isSet(bitsOption)) {
        if (!number(bitsOption, 1, 32, value))
            return usage(tr("--bits %1: expected 1 to 32").arg(parser.value(bitsOption)));
        input.bitsPerSample = quint32(value);
    }
    input.cameraFile = parser.value(cameraFileOption);
    input.frameNumbersFromNames = parser.isSet(numbersOption);
    if (parser.isSet(rawOption)) {
        input.raw = true;
        if (!parseSize(parser.value(rawOption), input.rawFormat.width, input.rawFormat.height))
            return usage(tr("--raw %1: expected WIDTHxHEIGHT, each 1 to %2").arg(parser.value(rawOption)).arg(MaxSide));
    }
    if (parser.isSet(rawTypeOption)) {
        if (!input.raw)
            return usage(tr("--raw-type needs --raw WIDTHxHEIGHT"));
        input.rawFormat.dataType = RawIo::typeFromName(parser.value(rawTypeOption));
        if (input.rawFormat.dataType == IDT_UNKNOWN)
            return usage(tr("--raw-type %1: expected one of %2").arg(parser.value(rawTypeOption), RawIo::typeNames()));
    }

    // Camera options are checked now, so that a typo is reported before any
    // plug-in is loaded; a camera description can change what fits, so
    // with one the check waits until it is read.
    if (!files && input.cameraFile.isEmpty()) {
        CxSyntheticCamera::SxConfig config;
        if (!CxInputFactory::cameraConfig(input, nullptr, config, text))
            return ExitUsage;
    }
    return ExitOk;
}
