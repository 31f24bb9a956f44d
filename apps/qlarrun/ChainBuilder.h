#pragma once
#include "ExitCodes.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QList>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>

class CxChainable;
struct SxCameraDescription;

// The message as it is when it already names the file, else prefixed with it.
QString namingFile(const QString& path, const QString& message);

// One node given on the command line: "CustomName:key=value:key=value".
struct SxNodeRequest
{
    QString name;
    QList<QPair<QString, QString>> settings;  // in the order given; a later key wins
};

// Turns a chain document and command-line node descriptions into nodes.
class CxChainBuilder
{
    Q_DECLARE_TR_FUNCTIONS(CxChainBuilder)
public:
    // Syntax only, so that a typo is reported before any plug-in is loaded.
    static bool parseNodeRequest(const QString& text, SxNodeRequest& request, QString* error);

    // The document's nodes first, then one node per request. On failure no node
    // is left over and error names the file or node at fault. input receives
    // the document's description of its input (empty without one).
    static ExExitCode build(const QString& chainFile, const QList<SxNodeRequest>& requests,
                            QList<CxChainable*>& nodes, SxCameraDescription& input, QString* error);

    // Null with a message when no registered node has that CustomName (or,
    // failing that, that UniqueID).
    static CxChainable* createNode(const QString& name, QString* error);
    // Applies the settings through the node's own loadSettings, as a chain
    // document would. Keys the node does not save are refused, and so are
    // values it does not keep as given (text where it wants a number).
    static ExExitCode applySettings(CxChainable* node, const SxNodeRequest& request, QString* error);
};
