#pragma once
#include <CommandLine.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <QtCore/QStringList>

// qlarview's arguments: the input and chain options of qlarrun, meaning what
// they mean there (--camera, --size, --seed, --frames, --cfa, --bits,
// --camera-file, --raw, --raw-type, --numbers-from-names, --live, --static,
// --chain, --node, --plugins, inputs), plus the viewer's own. The camera
// runs until stopped unless --frames is given, at --fps frames a second.
struct SxViewerOptions
{
    SxRunOptions run;          // input, chain and plug-in folder
    QString genicam;           // a GenICam camera to open instead: its id, "first" or "fake"
    double fps = 30.0;         // built-in camera and file player; 0: as fast as the chain takes them
    int stage = -2;            // the stage shown: -1 input, i node i; -2 the last node
    bool loop = false;         // file player starts again at the end
    bool paused = false;       // the chain is built but not started
};

class CxViewerCommandLine
{
    Q_DECLARE_TR_FUNCTIONS(CxViewerCommandLine)
public:
    // As CxCommandLine::parse: ActionHelp/ActionVersion put the text to
    // print in text, a failure its one-line reason.
    static ExExitCode parse(const QStringList& arguments, SxViewerOptions& options, QString* text);
};
