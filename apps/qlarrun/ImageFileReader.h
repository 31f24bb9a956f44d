#pragma once
#include "CameraDescription.h"
#include "RawIo.h"
#include "TiffIo.h"

#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <vector>

// How picture files are found, recognised and read.
//
// Formats are recognised by their first bytes, not by their names: TIFF,
// PNG, and binary PGM/PPM. Raw frames have no signature, so with raw frames
// every input is read as raw frames.
//
// A file holds one frame or several: every full-resolution page of a TIFF,
// every image of a PNM file, every frame of a raw recording (see TiffIo.h,
// PnmIo.h, RawIo.h); a PNG holds one. Colour pictures come out blue first
// (B, G, R, A) whatever order the file keeps, and their channels unnamed.
//
// What a file says about its sensor can be completed or corrected, in this
// order, each later one winning where it says something: the file itself
// (our TIFFs record filter array, significant bits and the hyperspectral
// description), the input description of the chain document, a camera
// description file, and the command line (filter array, significant bits).
// A filter array is only for one-channel pictures; 7 needs a valid
// hyperspectral description; significant bits may not exceed the sample
// type's (and float samples have 32).
struct SxReadOptions
{
    bool raw = false;
    RawIo::SxRawFormat rawFormat;
    bool hasChainInput = false;
    SxCameraDescription chainInput;  // from the chain document
    bool hasCamera = false;
    SxCameraDescription camera;      // from --camera-file
    int colorFilterArray = -1;  // -1: as the file and descriptions say
    quint32 bitsPerSample = 0;  // 0: as the file and descriptions say
};

class CxImageFileReader
{
    Q_DECLARE_TR_FUNCTIONS(CxImageFileReader)
public:
    enum ExFormat { FormatUnknown, FormatTiff, FormatPng, FormatPnm, FormatRaw };

    // The frames of one file, as scan() finds them without reading samples.
    struct SxFrames
    {
        QString path;
        ExFormat format = FormatUnknown;
        qint64 count = 0;
        TiffIo::SxPages pages;             // TIFF
        std::vector<quint64> images;       // PNM: where each image's header starts
    };

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
    // frame_9 comes before frame_10, and signed ones (the minus rule of
    // frameNumberFromName) count down, so frame_-2 comes before frame_-1;
    // otherwise character by character.
    static bool nameLess(const QString& a, const QString& b);
    // The last run of digits in the file name without its suffix, negative
    // when a '-' stands right before it at the start of the name or after a
    // character that is neither letter nor digit ("frame_-3", "-3", "x -3"
    // are -3); after a letter or digit the '-' only separates ("shot-0001" is
    // 1). Numbers beyond 32 bits are refused.
    static bool frameNumberFromName(const QString& path, qint32& number, QString* error);

    // Messages name the file and, where it matters, the page or image.
    static bool scan(const QString& path, const SxReadOptions& options, SxFrames& frames, QString* error);
    // "stack.tif (page 3 of 20)" for a frame of a file of several, the bare
    // path for a file of one; index counts from 0.
    static QString frameName(const SxFrames& frames, qint64 index);
    // pic becomes a heap picture (memory it holds is reused when large
    // enough); meta is replaced. Every message names the frame.
    static bool readFrame(const SxFrames& frames, qint64 index, const SxReadOptions& options, SxPicBuf& pic,
                          CxImageMetadata& meta, QString* error);
    // The first frame of the file.
    static bool read(const QString& path, const SxReadOptions& options, SxPicBuf& pic, CxImageMetadata& meta,
                     QString* error);

private:
    static bool describeSensor(const QString& name, const SxReadOptions& options, SxPicBuf& pic,
                               CxImageMetadata& meta, QString* error);
};
