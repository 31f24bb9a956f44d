// Every frame of a picture file, as qlarrun reads it: QLAR_FUZZ_SUFFIX picks
// the reader (tif, png, pgm); raw frames take their size and type from the
// first bytes.
#include "FuzzSupport.h"

#include <CxPicBufAPI.h>
#include <ImageFileReader.h>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz::start(argc, argv, false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SxReadOptions options;
    QString path;
    if (QLatin1String(QLAR_FUZZ_SUFFIX) == QLatin1String("raw")) {
        fuzz::SxBytes in{data, size};
        options.raw = true;
        options.rawFormat.width = 1 + in.take<uint8_t>() % 64;
        options.rawFormat.height = 1 + in.take<uint8_t>() % 64;
        const ExImageDataType types[] = {IDT_UINT8, IDT_INT8, IDT_UINT16, IDT_INT16, IDT_UINT32, IDT_INT32, IDT_FLOAT};
        options.rawFormat.dataType = types[in.take<uint8_t>() % 7];
        options.rawFormat.bitsPerSample = in.take<uint8_t>() % 40;
        options.rawFormat.colorFilterArray = ExColorFilterArray(in.take<uint8_t>() % 9);
        path = fuzz::asFile(in.data, in.size, "frame.raw");
    } else {
        path = fuzz::asFile(data, size, "frame." QLAR_FUZZ_SUFFIX);
    }
    CxImageFileReader::SxFrames frames;
    QString error;
    if (!CxImageFileReader::scan(path, options, frames, &error))
        return 0;
    SxPicBuf pic;
    CxImageMetadata meta;
    for (qint64 i = 0; i < qMin<qint64>(frames.count, 8); ++i)
        CxImageFileReader::readFrame(frames, i, options, pic, meta, &error);
    CxPicBufAPI::FreePicBuf(pic, true);
    return 0;
}
