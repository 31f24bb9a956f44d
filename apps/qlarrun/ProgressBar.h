#pragma once
#include <QtCore/QElapsedTimer>
#include <QtCore/QString>

class QTextStream;

// A one-line progress bar redrawn in place ("[#####.....]  40/100 frames").
// It draws only when enabled and stderr is a terminal, at most ten times a
// second; anything else printed on the same stream must call clear() first so
// that the bar does not run into it.
class CxProgressBar
{
public:
    CxProgressBar(QTextStream& stream, qint64 total, bool enabled);
    ~CxProgressBar();

    // stderr is a terminal.
    static bool terminalAttached();

    void update(qint64 done);
    void clear();
    // The bar as drawn for done of total frames, width characters of bar.
    static QString render(qint64 done, qint64 total, int width);

private:
    QTextStream& m_stream;
    qint64 m_total = 0;
    bool m_active = false;
    bool m_drawn = false;
    int m_lastLength = 0;
    QElapsedTimer m_sinceDraw;
};
