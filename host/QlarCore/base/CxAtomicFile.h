#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <functional>

// Files that show under their name only complete. The bytes go to a hidden
// temporary file beside the target (".name.XXXXXX", which no folder listing
// of our programs picks up), and the temporary file replaces the target only
// when every write and the close succeeded; on any failure it is removed and
// the target is left as it was. A short write counts as a failure: a full
// disk or a file size limit often lets part of a block through before it
// refuses the rest. reason then holds the system's words ("No space left on
// device", "File too large", "Permission denied"), without the path, for the
// caller's message.
class QLARCORE_EXPORT CxAtomicFile
{
public:
    static bool write(const QString& path, const QByteArray& bytes, QString* reason);

    // For writers that need a path of their own (libtiff): writeTo gets the
    // temporary path, writes the whole file there and answers whether that
    // worked (its own reason, if any, goes in *reason; errno is kept when it
    // leaves *reason empty).
    using PathWriter = std::function<bool(const QString& temporaryPath, QString* reason)>;
    static bool writeVia(const QString& path, const PathWriter& writeTo, QString* reason);
};
