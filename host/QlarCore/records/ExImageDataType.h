#pragma once
#include <QtCore/qglobal.h>

// Sample type of a picture. The numeric values are stored in chain documents
// and image descriptions and are tested by the nodes, so they never change.
enum ExImageDataType : quint32 {
    IDT_UNKNOWN = 0,
    IDT_INT8 = 1,
    IDT_UINT8 = 2,
    IDT_INT16 = 3,
    IDT_UINT16 = 4,
    IDT_INT32 = 5,
    IDT_UINT32 = 6,
    IDT_INT64 = 7,
    IDT_UINT64 = 8,
    IDT_FLOAT = 9,
    IDT_DOUBLE = 10,
    IDT_HALF = 11
};

// Bytes one sample of the type occupies. Unknown values count as one byte so
// that pitch arithmetic on a malformed format never yields zero-sized rows.
constexpr unsigned bytesPerSampleOf(ExImageDataType t)
{
    switch (t) {
    case IDT_INT16: case IDT_UINT16: case IDT_HALF: return 2;
    case IDT_INT32: case IDT_UINT32: case IDT_FLOAT: return 4;
    case IDT_INT64: case IDT_UINT64: case IDT_DOUBLE: return 8;
    default: return 1;
    }
}
