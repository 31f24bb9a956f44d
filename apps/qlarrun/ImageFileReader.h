#pragma once
#include "CameraDescription.h"
#include "RawIo.h"

#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <QtCore/QStringList>

// How picture files are found, recognised and read.
//
// Formats are recognised by their first bytes, not by their names: TIFF,
// PNG, and binary PGM/PPM. Raw frames have no signature, so with raw frames
// every input is read as one.
//
// What a file says about its sensor can be completed or corrected, in this
// order, each later one winning: the file itself (our TIFFs record filter
// array, significant bits and the hyperspectral description), a camera
// description file, and the command line (filter array, significant bits).
// A filter array is only for one-channel pictures; 7 needs a valid
// hyperspectral description; significant bits may not exceed the sample
// type's (and float samples have 32).
struct SxReadOptions
{
    bool raw = false;
    RawIo::SxRawFormat rawFormat;
    bool hasCamera = false;
    SxCameraDescription camera;
    int colorFilterArray = -1;  // -1: as the file and camera say
    quint32 bitsPerSample = 0;  // 0: as the file and camera say
};

class CxImageFileReader
{
    Q_DECLARE_TR_FUNCTIONS(CxImageFileReader)
public:
    enum ExFormat { FormatUnknown, FormatTiff, FormatPng, FormatPnm };

    // Lower-case suffixes a folder is searched for (raw frames excepted).
    static QStringList pictureSuffixes();
    static ExFormat detect(const QString& path);

    // Files, folders and wildcard patterns (in the last part of a path: *, ?
    // and [...]) into a list of files: arguments in their order, the files of
    // one folder or pattern in name order. A folder contributes the files with
    // a picture suffix, or every visible file when reading raw frames. A name
    // that does not exist, or a folder or pattern that yields nothing, is an
    // error that names it. A PNG beside a TIFF of the same name in a folder
    // is taken as its view (as this program writes them) and left out.
    static bool listInputs(const QStringList& inputs, bool raw, QStringList& files, QString* error);
    // Name order as people count: runs of digits compare by their value, so
    // frame_9 comes before frame_10; otherwise character by character.
    static bool nameLess(const QString& a, const QString& b);
    // The last run of digits in the file name without its suffix.
    static bool frameNumberFromName(const QString& path, qint32& number, QString* error);

    // pic becomes a heap picture (memory it holds is reused when large
    // enough); meta is replaced. Every message names the file.
    static bool read(const QString& path, const SxReadOptions& options, SxPicBuf& pic, CxImageMetadata& meta,
                     QString* error);

private:
    static bool describeSensor(const QString& path, const SxReadOptions& options, SxPicBuf& pic,
                               CxImageMetadata& meta, QString* error);
};
