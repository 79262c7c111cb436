/*
 * kivcam.h - the C interface of the KivCam camera-control library.
 *
 * Usable from C11 and C++17. Include only this file and link libkivcam.so.
 *
 * Conventions (see include/kivcam/README.md for the long form):
 *  - Every function is a plain C function named KIVCAM_... (or KIVCAMFILTER_...
 *    for the output filter). KIVCAM_BOOL results are 32-bit: 1 = success,
 *    0 = failure; the reason of a failure is the calling thread's last-error
 *    code, read with KIVCAM_GetLastError(). Every function that runs the
 *    common call frame sets the caller's code to 0 on entry, so a success
 *    always leaves 0. The KIVCAMFILTER_ functions return their own status and
 *    never touch the last-error code.
 *  - Handles (HCAMERA, HCTBL, HCAMERAPORT, HVSYNC) are opaque pointers. The
 *    library refuses a handle of the wrong kind, a null one, one it did not
 *    issue and one whose object is gone with KIVCAM_ERR_PARAM; handle values
 *    are never issued twice, so a closed handle stays refused.
 *  - Callbacks may call any function: it works or fails at once with its
 *    documented error, and never waits for the thread the callback runs on.
 *  - All integers are fixed-width; every record's size and field offsets are
 *    pinned below with static assertions. The library is 64-bit only.
 *  - BOOL: this header does not define BOOL, BITMAPINFOHEADER, RGBQUAD or
 *    BITMAPINFO, so it never collides with a host that has its own. A host
 *    that wants those Windows names as aliases of the KIVCAM_ types defines
 *    KIVCAM_WINDOWS_NAMES before including this file (BOOL is then an int,
 *    which repeats a Windows-style "typedef int BOOL" harmlessly).
 *
 * Lock names used in the descriptions: "API lock" serialises the library-level
 * functions (open, close, list, version, callbacks, conversion handles,
 * register-port open/close); "camera lock" is per camera and serialises the
 * functions on one camera handle; "conversion lock" is per camera and guards
 * its conversion engine; "port lock" is per register port. Functions on
 * different cameras never block each other.
 */
#ifndef KIVCAM_KIVCAM_H
#define KIVCAM_KIVCAM_H

#include <stddef.h>
#include <stdint.h>

/* ------------------------------------------------------------------------ */
/* Build macros                                                               */
/* ------------------------------------------------------------------------ */

#if defined(__GNUC__) || defined(__clang__)
/* The library is built with hidden visibility; only what is declared with
 * KIVCAM_API (and defined) is exported. */
#  define KIVCAM_API __attribute__((visibility("default")))
#else
#  define KIVCAM_API
#endif

#ifdef __cplusplus
#  define KIVCAM_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#  define KIVCAM_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Flexible array members are standard C; g++ and clang++ accept them as an
 * extension, kept quiet here under -pedantic. */
#ifdef __cplusplus
#  define KIVCAM_FLEX_MEMBER __extension__
#else
#  define KIVCAM_FLEX_MEMBER
#endif

/* Records carry 64-bit addresses at fixed offsets. */
KIVCAM_STATIC_ASSERT(sizeof(void *) == 8, "KivCam needs a 64-bit target");
KIVCAM_STATIC_ASSERT(sizeof(double) == 8, "KivCam needs 64-bit doubles");
#if defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__)
KIVCAM_STATIC_ASSERT(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
                     "KivCam records are little-endian");
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Basic types, handles, revision                                             */
/* ------------------------------------------------------------------------ */

/* 32-bit boolean result: 1 = success (KIVCAM_TRUE), 0 = failure. */
typedef int32_t KIVCAM_BOOL;
/* The two KIVCAM_BOOL values. */
#define KIVCAM_TRUE  1
#define KIVCAM_FALSE 0

/* Camera handle: an opened camera (KIVCAM_Open and friends). */
typedef struct KivCamCamera_ *HCAMERA;
/* Conversion handle: a free-standing conversion engine (KIVCAM_CreateConvHandle). */
typedef struct KivCamConv_ *HCTBL;
/* Register-port handle: a device opened for register access only (KIVCAM_OpenReg). */
typedef struct KivCamPort_ *HCAMERAPORT;
/* VSync token of a camera's second data stream (KIVCAM_VSyncReq). */
typedef struct KivCamVSync_ *HVSYNC;

/* Revision of this interface: KIVCAM_GetLibraryRevision() returns it, and it is
 * the highest structure version KIVCAM_SetStructVersion() accepts. */
#define KIVCAM_LIBRARY_REVISION 10106u
/* Lowest structure version that enables KIVCAM_SetCmdTimeOut(). */
#define KIVCAM_STRUCT_VERSION_CMDTIMEOUT 10102u

/* Wait without time limit (KIVCAM_ImageComplete, KIVCAM_VSyncComplete). */
#define KIVCAM_INFINITE 0xFFFFFFFFu
/* "Any camera" UID for KIVCAM_Open/KIVCAM_WatchOpen, "not given" in KIVCAM_OPENPARAM. */
#define KIVCAM_UID_ANY 0xFFFFFFFFFFFFFFFFull
/* KIVCAM_OPENPARAM.DescriptionIndex: look for a copy of the device description
 * in the data folder first, then read it from the device's first URL. Any
 * other value selects the device's description URL by index. */
#define KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST 0xFFFFFFFFu

/* ------------------------------------------------------------------------ */
/* Error codes (KIVCAM_GetLastError)                                          */
/* ------------------------------------------------------------------------ */

#define KIVCAM_ERR_NONE            0u  /* no error */
#define KIVCAM_ERR_PARAM           1u  /* invalid argument or handle */
#define KIVCAM_ERR_BUFFER_SIZE     2u  /* the caller's buffer is too small */
#define KIVCAM_ERR_NOT_SUPPORTED   3u  /* no loaded producer serves the request */
#define KIVCAM_ERR_ALREADY_OPEN    4u  /* the device is already open */
#define KIVCAM_ERR_NO_CAMERA       5u  /* no such camera, or the camera is not present */
#define KIVCAM_ERR_MODE            6u  /* wrong open mode (watch vs. control) */
#define KIVCAM_ERR_ACCESS          7u  /* register, port or feature access failed */
#define KIVCAM_ERR_ALLOCATED       8u  /* acquisition resources already allocated */
#define KIVCAM_ERR_NOT_ALLOCATED   9u  /* acquisition resources not allocated */
#define KIVCAM_ERR_RUNNING        10u  /* acquisition is started */
#define KIVCAM_ERR_NOT_RUNNING    11u  /* acquisition not started / no multicast stream */
#define KIVCAM_ERR_BUFFER_BUSY    12u  /* the buffer or the stream is in use */
#define KIVCAM_ERR_TIMEOUT        13u  /* no image within the time allowed */
#define KIVCAM_ERR_NO_IMAGE       14u  /* nothing to complete, or image with error status */
#define KIVCAM_ERR_BUFFER         15u  /* the buffer does not belong to the camera */
#define KIVCAM_ERR_VERSION        16u  /* structure version refused or too low */
#define KIVCAM_ERR_NOT_GIGE       17u  /* the camera is not a GigE camera */
/* 18 is not used. */
#define KIVCAM_ERR_NO_ADDRESS     19u  /* no stream destination address */
#define KIVCAM_ERR_NOT_USB        20u  /* the camera is not a USB camera */
#define KIVCAM_ERR_FORMAT         21u  /* the pixel format is not supported */
#define KIVCAM_ERR_OTHER          99u  /* unexpected failure; details in the call log */
/* KIVCAM_TestStream (and a GigE open) may also leave a non-zero device code
 * reported by the camera's stream test, passed through unchanged. */

/* ------------------------------------------------------------------------ */
/* Bus events and callbacks                                                   */
/* ------------------------------------------------------------------------ */

#define KIVCAM_EVENT_BUSRESET 1u  /* cameras may have come or gone; open cameras re-tested presence */
#define KIVCAM_EVENT_POWERUP  2u  /* the first loaded producer reported a power wake-up */

/* Bus-event function (KIVCAM_SetCallBack). Runs on the library's callback
 * thread, never inside a library lock; it may call any export (also
 * KIVCAM_FreeLibrary, which then returns at once) but must return for the
 * library to unload. */
typedef void (*KIVCAM_CALLBACK)(uint32_t event, void *context);

/* ------------------------------------------------------------------------ */
/* Camera kinds and the camera list                                           */
/* ------------------------------------------------------------------------ */

/* CameraListEntry.CameraKind; also the Transport word of ImageInfo. */
#define KIVCAM_CAMERAKIND_IIDC 0u
#define KIVCAM_CAMERAKIND_GIGE 1u
#define KIVCAM_CAMERAKIND_USB  2u

/* Byte-packed so that a CameraList is a 4-byte count followed directly by
 * 532-byte entries (the UID of every entry sits at 4 modulo 8). */
#pragma pack(push, 1)

/* One camera: filled by KIVCAM_GetList, KIVCAM_CameraInfo and
 * KIVCAM_CameraRegInfo. Text fields are zero-terminated when shorter than
 * their field. */
typedef struct CameraListEntry {
    uint64_t UID;          /* device UID: the decimal number after "::" in the device ID */
    uint32_t Info1002;     /* producer's device information 1002 (GigE: stream destination address) */
    uint32_t CameraKind;   /* KIVCAM_CAMERAKIND_* */
    uint32_t LinkCode;     /* GigE: 0 when the producer's link value is 100, else 6;
                              USB: 7 when it is 0x200, else 8; IIDC: the value itself */
    char     Vendor[256];  /* vendor name */
    char     Model[256];   /* model name */
} CameraListEntry;

/* KIVCAM_GetList buffer: Count is the capacity in entries on entry (0 = only
 * count the devices) and the number of devices on return. The buffer must
 * hold KIVCAM_CAMERALIST_BYTES(capacity) bytes. */
#if defined(__cplusplus) && defined(__clang__)
#  pragma clang diagnostic push
#  pragma clang diagnostic ignored "-Wc99-extensions"
#endif
typedef struct CameraList {
    uint32_t Count;
    KIVCAM_FLEX_MEMBER CameraListEntry Entry[];
} CameraList;
#if defined(__cplusplus) && defined(__clang__)
#  pragma clang diagnostic pop
#endif

#pragma pack(pop)

/* Bytes of a CameraList buffer with room for `capacity` entries. */
#define KIVCAM_CAMERALIST_BYTES(capacity) \
    ((size_t)4u + (size_t)532u * (size_t)(capacity))

/* Open request of KIVCAM_OpenGigE, KIVCAM_OpenUSB and KIVCAM_WatchOpenGigE.
 * The library reads bytes 0 to 27 only (sizeof is 32: natural alignment pads
 * the tail) and never writes the record. UID and DeviceKey must not both be
 * given. */
typedef struct KIVCAM_OPENPARAM {
    uint64_t UID;               /* KIVCAM_UID_ANY = not given */
    uint32_t DescriptionIndex;  /* KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST or a URL index */
    char     DeviceKey[16];     /* user-defined device name; empty = not given; GigE: at most 15 characters */
} KIVCAM_OPENPARAM;

/* ------------------------------------------------------------------------ */
/* Camera information records                                                 */
/* ------------------------------------------------------------------------ */

/* KIVCAM_CameraInfoGigE. Cleared, then filled; a text that fills its field
 * completely has no terminating zero. */
typedef struct GigECameraInfo {
    uint32_t Info1002;              /* device information 1002 (stream destination address) */
    uint8_t  UID[6];                /* 48-bit UID, most significant byte first */
    uint16_t Info1003;              /* low 16 bits of device information 1003 */
    uint16_t Info1004;              /* low 16 bits of device information 1004 */
    uint16_t Reserved;              /* 0 */
    uint32_t Info1005;              /* device information 1005 */
    char     Vendor[32];
    char     Model[32];
    char     DeviceVersion[32];
    char     ManufacturerInfo[48];
    char     SerialNumber[16];
    char     UserDefinedName[16];   /* the device key of KIVCAM_OPENPARAM */
} GigECameraInfo;

/* KIVCAM_CameraInfoUSB. Same text rule as GigECameraInfo. */
typedef struct USBCameraInfo {
    uint32_t Info1002;              /* device information 1002 */
    uint32_t Info1003_1004;         /* (information 1003 << 16) | information 1004 */
    char     Vendor[64];
    char     Model[64];
    char     FamilyName[64];
    char     DeviceVersion[64];
    char     ManufacturerInfo[64];
    char     SerialNumber[64];
    char     UserDefinedName[64];   /* the device key */
    uint64_t Info1011;              /* device information 1011 */
} USBCameraInfo;

/* KIVCAM_GetGigEPktLog: the producer's packet log of the image stream, copied
 * as the producer delivers it. */
typedef struct GigEPacketLog {
    uint8_t Data[24];
} GigEPacketLog;

/* ------------------------------------------------------------------------ */
/* Images                                                                     */
/* ------------------------------------------------------------------------ */

/* Description of an image for the handle-bound conversion functions. It is
 * also the first 28 bytes of every ImageBuffer, so an acquired image can be
 * passed directly (KIVCAM_IMAGEDESC_OF). Packed: 28 bytes with the pointer at
 * offset 8. */
#pragma pack(push, 4)
typedef struct KIVCAM_IMAGEDESC {
    uint32_t    Width;         /* pixels */
    uint32_t    Height;        /* lines */
    const void *Data;          /* first byte of the source pixels */
    uint32_t    DataSize;      /* bytes; not read by the conversions */
    uint32_t    PixelFormat;   /* 32-bit pixel-format code (GenICam PFNC / GigE Vision) */
    uint32_t    LittleEndian;  /* 16-bit samples: 1 = little-endian, 0 = big-endian; >1 refused */
} KIVCAM_IMAGEDESC;
#pragma pack(pop)

/* ImageBuffer.Status values. */
#define KIVCAM_BUFFER_STATUS_OK        0   /* allocated, or completed well */
#define KIVCAM_BUFFER_STATUS_REQUESTED (-1) /* queued by KIVCAM_ImageReq */
#define KIVCAM_BUFFER_STATUS_FAILED    14  /* completed with an error status */

/* An image buffer allocated by KIVCAM_ImageAlloc; the application reads it and
 * passes its address back to the buffer functions. The library owns it. */
typedef struct ImageBuffer {
    uint32_t Width;         /* "Width" at allocation */
    uint32_t Height;        /* "Height" at allocation */
    void    *Data;          /* pixel memory, BufferSize bytes, owned by the buffer */
    uint32_t PayloadSize;   /* image bytes */
    uint32_t PixelFormat;   /* "PixelFormat" value at allocation, untranslated */
    uint32_t LittleEndian;  /* 1 when the camera's 16-bit samples are little-endian */
    int32_t  Status;        /* KIVCAM_BUFFER_STATUS_* */
    uint32_t BufferSize;    /* payload plus the producer's transport information */
    uint32_t InfoOffset;    /* offset of the transport information block in Data */
} ImageBuffer;

/* The image description at the head of an ImageBuffer. */
#define KIVCAM_IMAGEDESC_OF(buffer) \
    ((const KIVCAM_IMAGEDESC *)(const void *)(buffer))

/* IIDC (IEEE 1394) cameras: the fields of the per-image cycle-time value. */
typedef struct KIVCAM_IMAGEINFO_IIDC {
    uint32_t Transport;    /* KIVCAM_CAMERAKIND_IIDC */
    uint32_t StatusBits;   /* bits 5..7 of the completion status */
    uint32_t HighSeconds;  /* bits 29..31 of the per-image value; all ones when its upper half is 0xFFFF */
    uint32_t HighCycles;   /* bits 16..28; all ones when the upper half is 0xFFFF */
    uint32_t LowSeconds;   /* bits 13..15 */
    uint32_t LowCycles;    /* bits 0..12 */
} KIVCAM_IMAGEINFO_IIDC;

/* GigE cameras: completeness and the producer's packet information block
 * (block ID, packets, payload, timestamp, pixel format, size; the number of
 * missing packets at +540 and one bit per packet from +544). */
typedef struct KIVCAM_IMAGEINFO_GIGE {
    uint32_t Transport;        /* KIVCAM_CAMERAKIND_GIGE */
    uint32_t Complete;         /* 1 when every packet arrived */
    uint8_t  PacketInfo[540];  /* the producer's packet information block */
} KIVCAM_IMAGEINFO_GIGE;

/* USB3 Vision leader and trailer fields; 64-bit fields at offsets 12, 20, 28,
 * hence 4-byte packing. Fields a payload type does not fill keep what the
 * caller had in them. */
#pragma pack(push, 4)
typedef struct KIVCAM_IMAGEINFO_USB {
    uint32_t Transport;         /* KIVCAM_CAMERAKIND_USB */
    uint32_t Complete;          /* 1 when the byte count equals the payload size and both magics are right */
    uint32_t PayloadType;       /* leader: payload type (1 image, 0x4000 chunk, 0x4001 extended chunk) */
    uint64_t BlockID;           /* leader: block ID */
    uint64_t Timestamp;         /* leader: timestamp */
    uint64_t ValidPayloadSize;  /* trailer: valid payload size */
    uint32_t PixelFormat;       /* leader (types 1, 0x4001); type 0x4000: the trailer's chunk layout ID */
    uint32_t SizeX;             /* leader (types 1, 0x4001) */
    uint32_t SizeY;
    uint32_t OffsetX;
    uint32_t OffsetY;
    uint16_t PaddingX;
    uint16_t Reserved;          /* leader's reserved field */
    uint32_t TrailerSizeY;      /* trailer: size y (types 1, 0x4001) */
    uint32_t ChunkLayoutID;     /* trailer: chunk layout ID (type 0x4001) */
} KIVCAM_IMAGEINFO_USB;
#pragma pack(pop)

/* Per-image transport information (KIVCAM_ImageComplete, ImageCallBack). The
 * first word says which variant the library filled; pass an ImageInfo (548
 * bytes, the largest variant) unless the camera's kind is known. */
typedef union ImageInfo {
    uint32_t              Transport;  /* KIVCAM_CAMERAKIND_*: which member is valid */
    KIVCAM_IMAGEINFO_IIDC IIDC;
    KIVCAM_IMAGEINFO_GIGE GigE;
    KIVCAM_IMAGEINFO_USB  USB;
} ImageInfo;

/* Image function (KIVCAM_SetImageCallBack), called once per delivered image on
 * the camera's stream thread with the image's data address, its size in bytes
 * (the payload size, or 0 when the image arrived with an error status), the
 * width and height read when the thread started, the transport information
 * (or null when not asked for) and the application's context. It may call
 * any function, of this camera too: removing the callback, releasing the
 * resources, closing the camera or freeing the library from inside it
 * returns at once, and the image it was handed is no longer valid after a
 * close or a free. */
typedef void (*ImageCallBack)(HCAMERA camera, void *data, uint32_t size,
                              uint32_t width, uint32_t height,
                              ImageInfo *info, void *context);

/* ------------------------------------------------------------------------ */
/* Bitmap descriptions (Windows DIB layout)                                   */
/* ------------------------------------------------------------------------ */

/* The bitmap information header that describes a converted image. */
typedef struct KIVCAM_BITMAPINFOHEADER {
    uint32_t biSize;          /* 40 */
    int32_t  biWidth;
    int32_t  biHeight;        /* positive */
    uint16_t biPlanes;        /* 1 */
    uint16_t biBitCount;      /* 8, 24 or 32 */
    uint32_t biCompression;   /* 0: uncompressed */
    uint32_t biSizeImage;     /* bytes of the pixel array */
    int32_t  biXPelsPerMeter;
    int32_t  biYPelsPerMeter;
    uint32_t biClrUsed;       /* 256 for the 8-bit grey form, else 0 */
    uint32_t biClrImportant;
} KIVCAM_BITMAPINFOHEADER;

/* One colour-table entry of a bitmap description. */
typedef struct KIVCAM_RGBQUAD {
    uint8_t rgbBlue;
    uint8_t rgbGreen;
    uint8_t rgbRed;
    uint8_t rgbReserved;
} KIVCAM_RGBQUAD;

/* Colour forms (24-bit and 32-bit): header plus one zero entry, 44 bytes. The
 * bitmap functions take this type; pass a KIVCAM_BITMAPINFO_GRAY cast to it
 * when the 8-bit grey form may be chosen. */
typedef struct KIVCAM_BITMAPINFO {
    KIVCAM_BITMAPINFOHEADER bmiHeader;
    KIVCAM_RGBQUAD          bmiColors[1];
} KIVCAM_BITMAPINFO;

/* 8-bit grey form: header plus 256 grey entries (i, i, i, 0), 1064 bytes. */
typedef struct KIVCAM_BITMAPINFO_GRAY {
    KIVCAM_BITMAPINFOHEADER bmiHeader;
    KIVCAM_RGBQUAD          bmiColors[256];
} KIVCAM_BITMAPINFO_GRAY;

/* Sizes of the two bitmap description forms. */
#define KIVCAM_BMPINFO_COLOR_BYTES 44u
#define KIVCAM_BMPINFO_GRAY_BYTES  1064u

/* ------------------------------------------------------------------------ */
/* Conversion settings                                                        */
/* ------------------------------------------------------------------------ */

#define KIVCAM_GEOMETRY_AS_IS     0u  /* rows and columns as the camera sends them */
#define KIVCAM_GEOMETRY_MIRROR    1u  /* mirrored left-right */
#define KIVCAM_GEOMETRY_FLIP      2u  /* flipped top-bottom */
#define KIVCAM_GEOMETRY_ROTATE180 3u  /* both */

#define KIVCAM_SHIFT_AUTO (-1)        /* camera engines: shift from the pixel format's bit count */

#define KIVCAM_OUTPUT_BGRX32 0u       /* 4 bytes per pixel: B, G, R, untouched */
#define KIVCAM_OUTPUT_BGR24  1u       /* 3 bytes per pixel, rows padded to 4 bytes */

/* Conversion mode (KIVCAM_ConvMode, KIVCAM_CreateConvHandle). */
typedef struct KIVCAM_CONVMODE {
    uint32_t Geometry;        /* KIVCAM_GEOMETRY_* */
    int32_t  Shift;           /* right shift of 16-bit samples: -1..8 for cameras, 0..8 for handles */
    uint32_t Output;          /* KIVCAM_OUTPUT_* */
    uint32_t GreenSmoothing;  /* non-zero: smooth green (Bayer formats) */
    uint32_t Parallel;        /* non-zero: split rows over a team of threads */
} KIVCAM_CONVMODE;

/* YUV to RGB coefficients; defaults 1.402, 0.711, 0.343, 1.772. */
typedef struct KIVCAM_YUVCOEF {
    double VtoR;
    double VtoG;
    double UtoG;
    double UtoB;
} KIVCAM_YUVCOEF;

/* Request record that the conversion functions hand to the converters; not
 * passed by applications. Packed: the pointers sit at offsets 20 and 28. */
#pragma pack(push, 1)
typedef struct KIVCAM_CONVREQ {
    uint32_t    Width;
    uint32_t    Height;
    uint32_t    ConvKind;
    uint32_t    BayerPhase;
    uint32_t    LittleEndian;  /* 1: 16-bit samples used as they are; 0: bytes swapped first */
    const void *Src;
    void       *Dst;
} KIVCAM_CONVREQ;
#pragma pack(pop)

/* ------------------------------------------------------------------------ */
/* Shared-memory layouts for outside readers (monitor, frame reader)          */
/* ------------------------------------------------------------------------ */

/* Machine-wide names. On Linux each is followed by $KIVCAM_IPC_NAMESPACE when
 * that is set, and a POSIX shared-memory object is "/" + the name. */
#define KIVCAM_LOG_MAPPING_NAME     "KIVCAMLogFile_Orvanta"
#define KIVCAM_LOG_MUTEX_NAME       "KIVCAMLogMutex_Orvanta"
#define KIVCAM_LOG_EVENT_NAME       "KIVCAMLogEvent_Orvanta"
#define KIVCAM_SHARED_DATA_NAME     "KIVCAMSharedData_Orvanta"
#define KIVCAM_PROCESS_TABLE_NAME   "KIVCAMProcessIdTBLFile_Orvanta"
#define KIVCAM_PROCESS_MUTEX_NAME   "KIVCAMProcessIdTBLMutex_Orvanta"
#define KIVCAM_PROCESS_EVENT_NAME   "KIVCAMProcessIdTBLEvent_Orvanta"
#define KIVCAM_PROCESS_USB_EVENT_PREFIX  "KIVCAMProcessIdTBLUSBEvent_Orvanta"  /* + pid */
#define KIVCAM_PROCESS_IIDC_EVENT_PREFIX "KIVCAMProcessIdTBLIIDCEvent_Orvanta" /* + pid */
/* Output filter, formatted with the writer's process id: "%s_%d" (mappings),
 * "%s_%d_%d" with 3 as the last number (mutex, event). */
#define KIVCAMFILTER_HEADER_NAME    "KIVCAMOutFilterFile_Orvanta"
#define KIVCAMFILTER_DATA_NAME      "KIVCAMOutFilterDataFile_Orvanta"
#define KIVCAMFILTER_MUTEX_NAME     "KIVCAMOutFilterMutex_Orvanta"
#define KIVCAMFILTER_EVENT_NAME     "KIVCAMOutFilterEvent_Orvanta"

/* The call log: its lines, the bytes of one line, and its levels. */
#define KIVCAM_LOG_SLOTS      32u
#define KIVCAM_LOG_SLOT_BYTES 1024u
#define KIVCAM_LOG_LEVEL_OFF     0u
#define KIVCAM_LOG_LEVEL_NORMAL  1u
#define KIVCAM_LOG_LEVEL_VERBOSE 2u

/* The shared call log, 32776 bytes, guarded by the log mutex. Writers append
 * at Line[Pending] and raise Pending; the reader takes Line[0..Pending-1] and
 * sets Pending to 0. */
typedef struct KIVCAM_LOGAREA {
    uint32_t Level;    /* KIVCAM_LOG_LEVEL_*; set by the monitor */
    uint32_t Pending;  /* lines not yet taken, at most 32 */
    char     Line[KIVCAM_LOG_SLOTS][KIVCAM_LOG_SLOT_BYTES];  /* zero-terminated, newline included */
} KIVCAM_LOGAREA;

/* Data shared by every process that loads the library. KIVCAM_LogCommonAreaGet
 * hands out the address of BuildDate ("Mmm dd yyyy"). */
typedef struct KIVCAM_SHAREDDATA {
    uint32_t MonitorProcessId;  /* the process whose lines are never written */
    uint32_t Reserved;
    char     BuildDate[12];
} KIVCAM_SHAREDDATA;

/* Capacity of the process-ID table. */
#define KIVCAM_PROCESS_TABLE_ENTRIES 256u
/* The process-ID table, 1028 bytes: every process with the library loaded, in
 * order of registration; guarded by its mutex, changes announced by its event. */
typedef struct KIVCAM_PROCESSTABLE {
    uint32_t Count;
    uint32_t ProcessId[KIVCAM_PROCESS_TABLE_ENTRIES];
} KIVCAM_PROCESSTABLE;

/* Header of an output-filter channel, 28 bytes, guarded by the filter mutex.
 * The data mapping holds two slots of SlotStride bytes each. */
typedef struct KIVCAMFILTER_HEADER {
    uint32_t WriteIndex;  /* slot of the newest published frame (writer) */
    uint32_t ReadIndex;   /* slot the reader took last (reader, and KIVCAMFILTER_Purge) */
    uint32_t Width;
    uint32_t Height;
    uint32_t UserValue;   /* third argument of KIVCAMFILTER_Alloc */
    uint32_t FrameSize;   /* Width * Height * 4 */
    uint32_t SlotStride;  /* FrameSize rounded up to a multiple of 4096 */
} KIVCAMFILTER_HEADER;

/* Output-filter status values (the KIVCAMFILTER_ results). */
#define KIVCAMFILTER_OK             0   /* done */
#define KIVCAMFILTER_NEWEST_SLOT  (-1)  /* the reader holds the other slot: the newest frame's slot was used */
#define KIVCAMFILTER_NO_PENDING     1   /* KIVCAMFILTER_Flush without a slot from KIVCAMFILTER_GetAddr */
#define KIVCAMFILTER_ERROR          2   /* no channel, or KIVCAMFILTER_Alloc failed */
#define KIVCAMFILTER_EXISTS         3   /* KIVCAMFILTER_Alloc: a channel already exists */

/* ------------------------------------------------------------------------ */
/* Layout checks                                                              */
/* ------------------------------------------------------------------------ */

#define KIVCAM_CHECK_SIZE(type, size) \
    KIVCAM_STATIC_ASSERT(sizeof(type) == (size), "size of " #type)
#define KIVCAM_CHECK_OFFSET(type, field, offset) \
    KIVCAM_STATIC_ASSERT(offsetof(type, field) == (offset), "offset of " #type "." #field)

KIVCAM_CHECK_SIZE(KIVCAM_BOOL, 4);
KIVCAM_CHECK_SIZE(HCAMERA, 8);
KIVCAM_CHECK_SIZE(HCTBL, 8);
KIVCAM_CHECK_SIZE(HCAMERAPORT, 8);
KIVCAM_CHECK_SIZE(HVSYNC, 8);

KIVCAM_CHECK_SIZE(CameraListEntry, 532);
KIVCAM_CHECK_OFFSET(CameraListEntry, UID, 0);
KIVCAM_CHECK_OFFSET(CameraListEntry, Info1002, 8);
KIVCAM_CHECK_OFFSET(CameraListEntry, CameraKind, 12);
KIVCAM_CHECK_OFFSET(CameraListEntry, LinkCode, 16);
KIVCAM_CHECK_OFFSET(CameraListEntry, Vendor, 20);
KIVCAM_CHECK_OFFSET(CameraListEntry, Model, 276);
KIVCAM_CHECK_SIZE(CameraList, 4);
KIVCAM_CHECK_OFFSET(CameraList, Count, 0);
KIVCAM_CHECK_OFFSET(CameraList, Entry, 4);

KIVCAM_CHECK_SIZE(KIVCAM_OPENPARAM, 32);
KIVCAM_CHECK_OFFSET(KIVCAM_OPENPARAM, UID, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_OPENPARAM, DescriptionIndex, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_OPENPARAM, DeviceKey, 12);

KIVCAM_CHECK_SIZE(GigECameraInfo, 196);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Info1002, 0);
KIVCAM_CHECK_OFFSET(GigECameraInfo, UID, 4);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Info1003, 10);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Info1004, 12);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Reserved, 14);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Info1005, 16);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Vendor, 20);
KIVCAM_CHECK_OFFSET(GigECameraInfo, Model, 52);
KIVCAM_CHECK_OFFSET(GigECameraInfo, DeviceVersion, 84);
KIVCAM_CHECK_OFFSET(GigECameraInfo, ManufacturerInfo, 116);
KIVCAM_CHECK_OFFSET(GigECameraInfo, SerialNumber, 164);
KIVCAM_CHECK_OFFSET(GigECameraInfo, UserDefinedName, 180);

KIVCAM_CHECK_SIZE(USBCameraInfo, 464);
KIVCAM_CHECK_OFFSET(USBCameraInfo, Info1002, 0);
KIVCAM_CHECK_OFFSET(USBCameraInfo, Info1003_1004, 4);
KIVCAM_CHECK_OFFSET(USBCameraInfo, Vendor, 8);
KIVCAM_CHECK_OFFSET(USBCameraInfo, Model, 72);
KIVCAM_CHECK_OFFSET(USBCameraInfo, FamilyName, 136);
KIVCAM_CHECK_OFFSET(USBCameraInfo, DeviceVersion, 200);
KIVCAM_CHECK_OFFSET(USBCameraInfo, ManufacturerInfo, 264);
KIVCAM_CHECK_OFFSET(USBCameraInfo, SerialNumber, 328);
KIVCAM_CHECK_OFFSET(USBCameraInfo, UserDefinedName, 392);
KIVCAM_CHECK_OFFSET(USBCameraInfo, Info1011, 456);

KIVCAM_CHECK_SIZE(GigEPacketLog, 24);
KIVCAM_CHECK_OFFSET(GigEPacketLog, Data, 0);

KIVCAM_CHECK_SIZE(KIVCAM_IMAGEDESC, 28);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, Width, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, Height, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, Data, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, DataSize, 16);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, PixelFormat, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEDESC, LittleEndian, 24);

KIVCAM_CHECK_SIZE(ImageBuffer, 40);
KIVCAM_CHECK_OFFSET(ImageBuffer, Width, 0);
KIVCAM_CHECK_OFFSET(ImageBuffer, Height, 4);
KIVCAM_CHECK_OFFSET(ImageBuffer, Data, 8);
KIVCAM_CHECK_OFFSET(ImageBuffer, PayloadSize, 16);
KIVCAM_CHECK_OFFSET(ImageBuffer, PixelFormat, 20);
KIVCAM_CHECK_OFFSET(ImageBuffer, LittleEndian, 24);
KIVCAM_CHECK_OFFSET(ImageBuffer, Status, 28);
KIVCAM_CHECK_OFFSET(ImageBuffer, BufferSize, 32);
KIVCAM_CHECK_OFFSET(ImageBuffer, InfoOffset, 36);
/* The description at the head of a buffer lines up field by field. */
KIVCAM_STATIC_ASSERT(offsetof(ImageBuffer, Status) == sizeof(KIVCAM_IMAGEDESC),
                     "ImageBuffer starts with a KIVCAM_IMAGEDESC");

KIVCAM_CHECK_SIZE(KIVCAM_IMAGEINFO_IIDC, 24);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, Transport, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, StatusBits, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, HighSeconds, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, HighCycles, 12);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, LowSeconds, 16);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_IIDC, LowCycles, 20);

KIVCAM_CHECK_SIZE(KIVCAM_IMAGEINFO_GIGE, 548);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_GIGE, Transport, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_GIGE, Complete, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_GIGE, PacketInfo, 8);

KIVCAM_CHECK_SIZE(KIVCAM_IMAGEINFO_USB, 68);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, Transport, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, Complete, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, PayloadType, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, BlockID, 12);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, Timestamp, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, ValidPayloadSize, 28);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, PixelFormat, 36);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, SizeX, 40);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, SizeY, 44);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, OffsetX, 48);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, OffsetY, 52);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, PaddingX, 56);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, Reserved, 58);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, TrailerSizeY, 60);
KIVCAM_CHECK_OFFSET(KIVCAM_IMAGEINFO_USB, ChunkLayoutID, 64);

KIVCAM_CHECK_SIZE(ImageInfo, 548);
KIVCAM_CHECK_OFFSET(ImageInfo, Transport, 0);
KIVCAM_CHECK_OFFSET(ImageInfo, IIDC, 0);
KIVCAM_CHECK_OFFSET(ImageInfo, GigE, 0);
KIVCAM_CHECK_OFFSET(ImageInfo, USB, 0);

KIVCAM_CHECK_SIZE(KIVCAM_BITMAPINFOHEADER, 40);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biSize, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biWidth, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biHeight, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biPlanes, 12);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biBitCount, 14);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biCompression, 16);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biSizeImage, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biXPelsPerMeter, 24);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biYPelsPerMeter, 28);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biClrUsed, 32);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFOHEADER, biClrImportant, 36);
KIVCAM_CHECK_SIZE(KIVCAM_RGBQUAD, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_RGBQUAD, rgbBlue, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_RGBQUAD, rgbGreen, 1);
KIVCAM_CHECK_OFFSET(KIVCAM_RGBQUAD, rgbRed, 2);
KIVCAM_CHECK_OFFSET(KIVCAM_RGBQUAD, rgbReserved, 3);
KIVCAM_CHECK_SIZE(KIVCAM_BITMAPINFO, KIVCAM_BMPINFO_COLOR_BYTES);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFO, bmiColors, 40);
KIVCAM_CHECK_SIZE(KIVCAM_BITMAPINFO_GRAY, KIVCAM_BMPINFO_GRAY_BYTES);
KIVCAM_CHECK_OFFSET(KIVCAM_BITMAPINFO_GRAY, bmiColors, 40);

KIVCAM_CHECK_SIZE(KIVCAM_CONVMODE, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVMODE, Geometry, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVMODE, Shift, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVMODE, Output, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVMODE, GreenSmoothing, 12);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVMODE, Parallel, 16);
KIVCAM_CHECK_SIZE(KIVCAM_YUVCOEF, 32);
KIVCAM_CHECK_OFFSET(KIVCAM_YUVCOEF, VtoR, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_YUVCOEF, VtoG, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_YUVCOEF, UtoG, 16);
KIVCAM_CHECK_OFFSET(KIVCAM_YUVCOEF, UtoB, 24);
KIVCAM_CHECK_SIZE(KIVCAM_CONVREQ, 36);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, Width, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, Height, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, ConvKind, 8);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, BayerPhase, 12);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, LittleEndian, 16);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, Src, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_CONVREQ, Dst, 28);

KIVCAM_CHECK_SIZE(KIVCAM_LOGAREA, 32776);
KIVCAM_CHECK_OFFSET(KIVCAM_LOGAREA, Level, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_LOGAREA, Pending, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_LOGAREA, Line, 8);
KIVCAM_CHECK_SIZE(KIVCAM_SHAREDDATA, 20);
KIVCAM_CHECK_OFFSET(KIVCAM_SHAREDDATA, MonitorProcessId, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_SHAREDDATA, Reserved, 4);
KIVCAM_CHECK_OFFSET(KIVCAM_SHAREDDATA, BuildDate, 8);
KIVCAM_CHECK_SIZE(KIVCAM_PROCESSTABLE, 1028);
KIVCAM_CHECK_OFFSET(KIVCAM_PROCESSTABLE, Count, 0);
KIVCAM_CHECK_OFFSET(KIVCAM_PROCESSTABLE, ProcessId, 4);
KIVCAM_CHECK_SIZE(KIVCAMFILTER_HEADER, 28);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, WriteIndex, 0);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, ReadIndex, 4);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, Width, 8);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, Height, 12);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, UserValue, 16);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, FrameSize, 20);
KIVCAM_CHECK_OFFSET(KIVCAMFILTER_HEADER, SlotStride, 24);

/* ======================================================================== */
/* Exports                                                                    */
/*                                                                            */
/* Unless a description says otherwise, a function: sets the caller's last    */
/* error to 0 on entry; writes Start and End (or Error) lines to the shared   */
/* call log; refuses a null required pointer or a handle of the wrong kind    */
/* with KIVCAM_ERR_PARAM before taking any lock; runs its checks in the order */
/* listed; returns KIVCAM_TRUE on success. "Present" means the camera still   */
/* answers on its bus (KIVCAM_ERR_NO_CAMERA otherwise).                       */
/* ======================================================================== */

/* ---- Library and version ------------------------------------------------ */

/* Declares the structure version the application is written for. The first
 * version above 0 (and every raise) loads the GenTL producers not loaded yet
 * and refreshes their interfaces; without it no camera is seen. The version
 * only rises: equal = no change, success.
 * Errors: KIVCAM_ERR_VERSION (above KIVCAM_LIBRARY_REVISION or below the
 * current version; nothing changes). Locks: API lock, then library lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_SetStructVersion(uint32_t version);

/* Returns KIVCAM_LIBRARY_REVISION (10106) and sets the caller's last error to
 * 0. No log line, no lock. */
KIVCAM_API uint32_t KIVCAM_GetLibraryRevision(void);

/* Destroys the library's object tree now (cameras, ports, producers,
 * conversion handles, callback thread) if it still exists; unloading later
 * destroys nothing twice. Afterwards only KIVCAM_LogCommonAreaGet and the
 * KIVCAMFILTER_ functions may be called; every other function returns 0
 * (failure) at once. Called from the bus-event callback it releases
 * everything before it returns, and the callback thread ends once the
 * callback returns. No log line, no lock, no error code. */
KIVCAM_API void KIVCAM_FreeLibrary(void);

/* ---- Last error --------------------------------------------------------- */

/* Returns the calling thread's last-error code (KIVCAM_ERR_*), 0 if its last
 * call succeeded or it never called. Does not change it; no log line; takes
 * only the error-map lock. */
KIVCAM_API uint32_t KIVCAM_GetLastError(void);

/* ---- Camera handles ----------------------------------------------------- */

/* Opens a camera by UID (from KIVCAM_GetList) with exclusive access, trying
 * every producer (GigE first); KIVCAM_UID_ANY opens the first camera that no
 * other application holds. *camera receives the handle (null is stored first,
 * whenever camera is not null).
 * Errors: PARAM (camera null, uid 0), NOT_SUPPORTED (a UID search with no
 * producer loaded), ALREADY_OPEN (that camera is open in this or another
 * process), NO_CAMERA (not found / nothing openable / description not
 * loadable). Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_Open(uint64_t uid, HCAMERA *camera);

/* Opens a GigE camera as param says: by UID when given, else by device key
 * when given, else the first free one; param->DescriptionIndex selects the
 * description source. param is only read.
 * Errors: PARAM (null pointer, UID and key both given, key of 16 characters
 * or more), NOT_SUPPORTED (no GigE producer loaded), ALREADY_OPEN, NO_CAMERA.
 * *camera is left untouched on an argument error. Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_OpenGigE(const KIVCAM_OPENPARAM *param, HCAMERA *camera);

/* As KIVCAM_OpenGigE for USB cameras. The key's length is not tested: it must
 * be terminated within its 16 bytes. Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_OpenUSB(const KIVCAM_OPENPARAM *param, HCAMERA *camera);

/* Closes a camera opened in control mode: stops acquisition and the image
 * callback, frees its buffers, closes its streams and the device. The handle
 * is invalid afterwards.
 * Errors: PARAM (not a camera), MODE (opened in watch mode: use
 * KIVCAM_WatchClose; the camera stays open). Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_Close(HCAMERA camera);

/* Closes every camera of this process, watch-mode ones included. Register
 * ports and conversion handles stay. No result. Lock: API lock. */
KIVCAM_API void KIVCAM_CloseAll(void);

/* Re-tests whether the camera is still on its bus: *state = 1 present,
 * 0 absent (the call succeeds either way).
 * Errors: PARAM (not a camera, state null). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_Camera(HCAMERA camera, uint32_t *state);

/* Waits until every running library-level call and producer-list build has
 * finished; changes nothing. Always KIVCAM_TRUE. Locks: API lock, library lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_Reset(void);

/* Loads the producers that are not loaded yet and refreshes every producer's
 * interface list, whatever the structure version. No result.
 * Locks: API lock, library lock. */
KIVCAM_API void KIVCAM_ReDetection(void);

/* ---- Bus events --------------------------------------------------------- */

/* Installs the bus-event function with its context, replacing any earlier
 * pair; a null function stops the callbacks. Events that arrive while no
 * function is installed are dropped; several resets before the callback
 * thread wakes give one call; a reset is delivered before a pending power-up.
 * No result, no error. Lock: API lock. */
KIVCAM_API void KIVCAM_SetCallBack(void *context, KIVCAM_CALLBACK callback);

/* ---- Watch mode (receive a GigE multicast stream another application controls) */

/* KIVCAM_Open with read-only access: the camera gets the watch flag.
 * KIVCAM_UID_ANY opens the first GigE camera the producer lets us open
 * read-only. USB cameras can't be watched.
 * Errors: as KIVCAM_Open; NOT_SUPPORTED when the UID search reaches the USB
 * producer. Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchOpen(uint64_t uid, HCAMERA *camera);

/* KIVCAM_OpenGigE with read-only access (watch mode). Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchOpenGigE(const KIVCAM_OPENPARAM *param, HCAMERA *camera);

/* Closes a watch-mode camera as KIVCAM_Close does.
 * Errors: PARAM, MODE (camera opened in control mode; it stays open).
 * Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchClose(HCAMERA camera);

/* Reads the camera's stream-channel registers: *state = 1 when the
 * controlling application streams to a multicast group (239.x.x.x), else 0.
 * KIVCAM_WatchAlloc relies on the last answer.
 * Errors: PARAM (state null), NO_CAMERA, MODE (not watch mode), ACCESS
 * (register read failed). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchCamera(HCAMERA camera, uint32_t *state);

/* Allocates acquisition resources on a watch-mode camera; joins the multicast
 * stream without touching the camera's settings.
 * Errors: NO_CAMERA, MODE, ALLOCATED, NOT_RUNNING (the last KIVCAM_WatchCamera
 * saw no multicast stream), ACCESS, OTHER. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchAlloc(HCAMERA camera);

/* Releases the resources of a watch-mode camera (every buffer is revoked).
 * Errors: NO_CAMERA, MODE, NOT_ALLOCATED, RUNNING. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchRelease(HCAMERA camera);

/* Starts receiving on a watch-mode camera (the device itself is not started).
 * Errors: NO_CAMERA, MODE, NOT_ALLOCATED, RUNNING, OTHER (the default
 * conversion engine could not be created). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchStart(HCAMERA camera);

/* Stops receiving on a watch-mode camera; works on an absent camera too.
 * Errors: MODE, NOT_ALLOCATED, NOT_RUNNING (not started). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WatchStop(HCAMERA camera);

/* ---- Call log ----------------------------------------------------------- */

/* For the monitor program: records monitorProcessId as the process whose
 * lines are never written, stores the address of the shared build-date text
 * ("Mmm dd yyyy", zero-terminated) in *buildDate, and destroys the calling
 * process's library object (no camera functions afterwards). No result, no
 * log line, no lock, no error code. */
KIVCAM_API void KIVCAM_LogCommonAreaGet(uint32_t monitorProcessId, void **buildDate);

/* ---- Output filter (frames to a reader in another process) -------------- */
/* These return a KIVCAMFILTER_ status, never change the last-error code and
 * take no library lock (only the channel's filter mutex). One application
 * thread should drive them. */

/* Creates this process's channel: a header and a ring of two frame slots of
 * width x height x 4 bytes each (stride rounded up to 4096); userValue is
 * passed to the reader unchanged.
 * Status: OK, EXISTS (a channel of this process exists; it stays usable),
 * ERROR (anything else). */
KIVCAM_API int32_t KIVCAMFILTER_Alloc(uint32_t width, uint32_t height, uint32_t userValue);

/* Copies one frame (FrameSize bytes) into the next free slot and publishes it.
 * The copy happens under the filter mutex, so a reader never sees it torn.
 * Status: OK, NEWEST_SLOT (the reader holds the other slot, the newest frame
 * was overwritten), ERROR (no channel, or frame null: nothing written).
 * Logged at level 2 only. */
KIVCAM_API int32_t KIVCAMFILTER_OutPut(const void *frame);

/* Hands out the next free slot to fill in place; KIVCAMFILTER_Flush
 * publishes it. The slot is filled outside the filter mutex: after OK the
 * reader never looks at it before the flush; after NEWEST_SLOT it is the
 * newest published frame's slot, which a reader may take while it is being
 * filled and then see torn (half old, half new frame). Writers that must
 * never show a torn frame use KIVCAMFILTER_OutPut, or skip a frame when
 * told NEWEST_SLOT.
 * Status: OK, NEWEST_SLOT (the newest frame's slot), ERROR (no channel, or
 * slot null: nothing is handed out). Logged at level 2 only. */
KIVCAM_API int32_t KIVCAMFILTER_GetAddr(void **slot);

/* Publishes the slot handed out by KIVCAMFILTER_GetAddr.
 * Status: OK, NO_PENDING (no slot handed out, or KIVCAMFILTER_OutPut came
 * since), ERROR (no channel). */
KIVCAM_API int32_t KIVCAMFILTER_Flush(void);

/* Marks the newest frame as taken by the reader and wakes the reader.
 * Status: OK, ERROR (no channel). */
KIVCAM_API int32_t KIVCAMFILTER_Purge(void);

/* Closes the channel: its event and both mappings, views included, and
 * removes their names, so that a later KIVCAMFILTER_Alloc in this process
 * makes a new channel (of another size, say). Slot addresses handed out
 * before are invalid afterwards. A reader that has the channel open keeps
 * its own views of the old one and opens the new one by the same id.
 * Status: OK, ERROR (no channel). */
KIVCAM_API int32_t KIVCAMFILTER_Free(void);

/* ---- Camera list -------------------------------------------------------- */

/* Lists the devices of every loaded producer. list->Count is the capacity on
 * entry; 0 only asks for the number of devices. On success Count is the
 * number of devices and Entry[0..] are filled (a device whose information
 * can't be read takes no entry, so fewer may be filled).
 * Errors: PARAM (list null), BUFFER_SIZE (capacity below the number of
 * devices; nothing written). Locks: API lock, then every interface lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_GetList(CameraList *list);

/* ---- Register access ---------------------------------------------------- */

/* Reads *size bytes at a device register address of an open camera into
 * buffer, bypassing the node map; *size receives the bytes read. The
 * camera's presence is not tested.
 * Errors: PARAM (not a camera, null pointers), ACCESS (the device refused;
 * *size unchanged). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ReadPort(HCAMERA camera, uint32_t address, void *buffer, uint32_t *size);

/* Writes *size bytes from buffer at a device register address of an open
 * camera; *size receives the bytes written.
 * Errors: PARAM, ACCESS. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WritePort(HCAMERA camera, uint32_t address, const void *buffer, uint32_t *size);

/* Opens the first free device of any producer for register access only (no
 * node map, no streaming; exclusive, so no camera open can take it).
 * Errors: PARAM (port null), NO_CAMERA (no free device). Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_OpenReg(HCAMERAPORT *port);

/* Closes a register port and its device.
 * Errors: PARAM (not a register port). Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CloseReg(HCAMERAPORT port);

/* KIVCAM_ReadPort on a register port. Errors: PARAM, ACCESS. Lock: port lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ReadReg(HCAMERAPORT port, uint32_t address, void *buffer, uint32_t *size);

/* KIVCAM_WritePort on a register port. Errors: PARAM, ACCESS. Lock: port lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_WriteReg(HCAMERAPORT port, uint32_t address, const void *buffer, uint32_t *size);

/* Fills info (cleared first) with the port's device: UID, kind, link code,
 * vendor, model. A text of 256 characters or more fills its field without a
 * terminator.
 * Errors: PARAM, OTHER (the producer failed; info partly filled).
 * Lock: port lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CameraRegInfo(HCAMERAPORT port, CameraListEntry *info);

/* ---- Camera information and features ------------------------------------ */

/* Fills info (cleared first) with the camera's identity, as KIVCAM_GetList does.
 * Errors: PARAM, NO_CAMERA, OTHER (producer failed; partly filled).
 * Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfo(HCAMERA camera, CameraListEntry *info);

/* Fills the GigE record (cleared first).
 * Errors: PARAM, NOT_GIGE, NO_CAMERA, OTHER. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoGigE(HCAMERA camera, GigECameraInfo *info);

/* Fills the USB record (cleared first).
 * Errors: PARAM, NOT_USB, NO_CAMERA, OTHER. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CameraInfoUSB(HCAMERA camera, USBCameraInfo *info);

/* Stores the camera's GenApi node map in *nodeMap: from C++ a
 * KivGenApi::CNodeMapRef *, owned by the camera and valid until it is closed.
 * Feature accesses through it are not serialised by the library.
 * Errors: PARAM, NO_CAMERA. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_GetNodeMap(HCAMERA camera, void **nodeMap);

/* Sets the producer's command timeout in milliseconds: 0 (no limit) or 500 to
 * 600000. Needs a structure version of at least 10102.
 * Errors: VERSION (tested first), PARAM (out of range), MODE (watch mode),
 * OTHER. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_SetCmdTimeOut(HCAMERA camera, uint32_t milliseconds);

/* ---- Acquisition resources and buffers ---------------------------------- */

/* Locks the transport parameters, registers the new-buffer events and starts
 * the producer's engine on both streams; records width, height and pixel
 * format and sizes the image buffers.
 * Errors: PARAM, NO_CAMERA, MODE (watch mode), ALLOCATED, NO_ADDRESS (GigE:
 * the camera information gives no stream destination, or could not be read),
 * ACCESS (a standard feature failed), OTHER (producer failed; undone).
 * Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceAlloc(HCAMERA camera);

/* Undoes KIVCAM_ResourceAlloc; every buffer is revoked (and may be freed).
 * Errors: PARAM, MODE, NOT_ALLOCATED, RUNNING. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceRelease(HCAMERA camera);

/* Allocates an image buffer for the camera's current geometry; *buffer
 * receives it (null is stored first). A failed feature read or allocation
 * returns KIVCAM_FALSE with last error 0.
 * Errors: PARAM (buffer null), NO_CAMERA, NOT_ALLOCATED. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageAlloc(HCAMERA camera, ImageBuffer **buffer);

/* Frees a buffer the producer no longer knows (not requested, or aborted).
 * Errors: PARAM, BUFFER (not this camera's), BUFFER_BUSY (still requested or
 * completed but not aborted). Lock: camera lock. Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageFree(HCAMERA camera, ImageBuffer *buffer);

/* Aborts every request and frees every buffer of the camera.
 * Errors: PARAM, RUNNING. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageFreeAll(HCAMERA camera);

/* ---- Acquisition -------------------------------------------------------- */

/* Starts acquisition ("AcquisitionStart"); creates the camera's default
 * conversion engine if it has none.
 * Errors: PARAM, NO_CAMERA, MODE, NOT_ALLOCATED, RUNNING, ACCESS, OTHER.
 * Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageStart(HCAMERA camera);

/* Stops acquisition ("AcquisitionStop" is executed even when not started).
 * Errors: PARAM, MODE, NOT_ALLOCATED, NOT_RUNNING. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageStop(HCAMERA camera);

/* Queues a buffer to be filled (its Status becomes -1).
 * Errors: PARAM (not a buffer, or of another size than the camera's current
 * buffers), NO_CAMERA, NOT_ALLOCATED, BUFFER (another camera's), BUFFER_BUSY
 * (already queued), OTHER. Lock: camera lock. Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageReq(HCAMERA camera, ImageBuffer *buffer);

/* Waits up to timeout ms (KIVCAM_INFINITE: no limit) for a requested buffer
 * and collects it; info, when not null, receives its transport information.
 * Status 0 on success; an image delivered with an error status fails with
 * NO_IMAGE and Status 14 (info is still filled). A buffer that arrives
 * during a timed-out wait is returned at once by the next call.
 * Errors: PARAM (never requested), NO_CAMERA, NOT_ALLOCATED, BUFFER,
 * TIMEOUT, NO_IMAGE (no request left), OTHER (wait aborted by
 * KIVCAM_ImageReqAbortAll or a release). Lock: camera lock, left during the
 * wait. Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageComplete(HCAMERA camera, ImageBuffer *buffer, uint32_t timeout, ImageInfo *info);

/* Aborts every request (waits in progress end) and revokes every buffer and
 * VSync token; buffers may be freed afterwards. Always KIVCAM_TRUE for a
 * valid camera. Errors: PARAM. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageReqAbortAll(HCAMERA camera);

/* Queues a VSync token on the camera's second stream; *token receives it (a
 * completed token may be queued again and keeps its value).
 * Errors: PARAM (token null), NO_CAMERA, NOT_ALLOCATED, OTHER.
 * Lock: camera lock. Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_VSyncReq(HCAMERA camera, HVSYNC *token);

/* Waits up to timeout ms for the token's VSync.
 * Errors: PARAM (token null or not queued), NO_CAMERA, NOT_ALLOCATED,
 * TIMEOUT, NO_IMAGE, OTHER. Lock: camera lock, left during the wait.
 * Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_VSyncComplete(HCAMERA camera, HVSYNC token, uint32_t timeout);

/* ---- Image callback ----------------------------------------------------- */

/* Installs the image function: the camera's stream thread announces
 * bufferCount producer-allocated buffers and calls callback once per image
 * (with an ImageInfo when passImageInfo is non-zero) until the callback is
 * removed, the resources are released or the producer fails. A null callback
 * removes it (always succeeds); it waits for the stream thread to end with
 * the camera lock given up, so the callback may take it meanwhile, and from
 * inside the callback it returns at once (the thread ends when the callback
 * returns). Returns once the buffers are queued.
 * Errors: PARAM (bufferCount 0), NO_CAMERA, NOT_ALLOCATED, BUFFER_BUSY
 * (already installed, or called from inside the callback whose thread has not
 * ended yet), OTHER (thread not created). Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_SetImageCallBack(HCAMERA camera, void *context, ImageCallBack callback,
                                               uint32_t bufferCount, uint32_t passImageInfo);

/* ---- GigE cameras ------------------------------------------------------- */

/* KIVCAM_ResourceAlloc for a GigE camera with a stream destination: address
 * (4 bytes, first octet first) is a multicast group 239.0-127.1-255.x, or
 * null / 0.0.0.0 for the camera's own destination; flag is passed to the
 * producer.
 * Errors: PARAM (bad group, tested first), NOT_GIGE, NO_CAMERA, MODE,
 * ALLOCATED, NO_ADDRESS (no group and no destination), ACCESS, OTHER.
 * Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ResourceAllocGigE(HCAMERA camera, const uint8_t *address, uint32_t flag);

/* Copies the producer's packet log of the image stream into log (cleared
 * first). Errors: PARAM, NOT_GIGE, NO_CAMERA, NOT_ALLOCATED. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_GetGigEPktLog(HCAMERA camera, GigEPacketLog *log);

/* Runs the producer's stream test of the current packet size. A failed test
 * leaves the device's non-zero result as the last error.
 * Errors: PARAM, NOT_GIGE, NO_CAMERA, MODE, ALLOCATED, RUNNING, device code.
 * Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_TestStream(HCAMERA camera);

/* ---- Bitmap descriptions ------------------------------------------------ */

/* Describes the bitmap the camera's conversions produce for its current pixel
 * format: the colour form (44 bytes; 32-bit, or 24-bit when the camera's
 * engine outputs 24-bit) or, when mono is non-zero and the format is
 * monochrome, the 8-bit grey form (1064 bytes). *size is the block's size:
 * 0 only asks for the size (info may then be null); on success it receives
 * the size used.
 * Errors: PARAM (not a camera, size null, info null with *size > 0),
 * NO_CAMERA, NOT_ALLOCATED, FORMAT (unsupported), BUFFER_SIZE (*size too
 * small; unchanged), ACCESS. Lock: camera lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_SetBMPINFO(HCAMERA camera, KIVCAM_BITMAPINFO *info, uint32_t *size, uint32_t mono);

/* Same as KIVCAM_SetBMPINFO. */
KIVCAM_API KIVCAM_BOOL KIVCAM_GetBMPINFO(HCAMERA camera, KIVCAM_BITMAPINFO *info, uint32_t *size, uint32_t mono);

/* Writes the 44-byte colour form for image, 32-bit or (when the handle
 * outputs 24-bit) 24-bit.
 * Errors: PARAM (not a conversion handle, null pointers, LittleEndian > 1),
 * FORMAT (unsupported pixel format). No lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvSetBMPINFO(HCTBL conv, const KIVCAM_IMAGEDESC *image, KIVCAM_BITMAPINFO *info);

/* Same as KIVCAM_ColorConvSetBMPINFO. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvGetBMPINFO(HCTBL conv, const KIVCAM_IMAGEDESC *image, KIVCAM_BITMAPINFO *info);

/* Writes the 1064-byte 8-bit grey form for a monochrome image, rows not
 * padded (biSizeImage = width x height).
 * Errors: PARAM (null pointers, unsupported pixel format, LittleEndian > 1),
 * FORMAT (not monochrome). No lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_MonoBMPINFO(const KIVCAM_IMAGEDESC *image, KIVCAM_BITMAPINFO_GRAY *info);

/* ---- Conversion --------------------------------------------------------- */

/* Replaces the camera's conversion engine by one with these settings; a null
 * mode means {0, KIVCAM_SHIFT_AUTO, 0, 0, 0}, a null coef the default
 * coefficients.
 * Errors: PARAM (geometry > 3, shift outside -1..8, output > 1), NO_CAMERA,
 * OTHER (engine not created; the camera is left without one).
 * Locks: camera lock, then conversion lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ConvMode(HCAMERA camera, const KIVCAM_CONVMODE *mode, const KIVCAM_YUVCOEF *coef);

/* Converts an acquired buffer of this camera into dst (a 32-bit or 24-bit
 * bitmap pixel array), using the camera's current pixel format.
 * Errors: PARAM (not a camera or buffer, dst null), NO_CAMERA, NOT_ALLOCATED,
 * OTHER (no engine, conversion failed). Lock: conversion lock.
 * Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ImageConvExec(HCAMERA camera, const ImageBuffer *image, void *dst);

/* Converts raw pixels src of the geometry and format recorded at resource
 * allocation into dst. No presence or state test.
 * Errors: PARAM, OTHER (no engine yet, conversion failed).
 * Lock: conversion lock. Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_BufferConvExec(HCAMERA camera, const void *src, void *dst);

/* Creates a free-standing conversion engine; *conv receives it (0 is stored
 * first). A null mode means all zero (shift 0), a null coef the defaults.
 * Errors: PARAM (conv null, geometry > 3, shift outside 0..8, output > 1),
 * OTHER. Lock: API lock. */
KIVCAM_API KIVCAM_BOOL KIVCAM_CreateConvHandle(HCTBL *conv, const KIVCAM_CONVMODE *mode, const KIVCAM_YUVCOEF *coef);

/* Destroys a conversion handle. No result; a value that is not a conversion
 * handle sets PARAM (without an Error log line). Lock: API lock. */
KIVCAM_API void KIVCAM_CloseConvHandle(HCTBL conv);

/* Destroys every conversion handle of this process. No result. Lock: API lock. */
KIVCAM_API void KIVCAM_CloseAllConvHandle(void);

/* Converts the image described by image into dst with a conversion handle.
 * Two threads may use one handle at once.
 * Errors: PARAM (bad handle, null pointers, unsupported format,
 * LittleEndian > 1), OTHER (conversion failed). No lock.
 * Logged at level 2 only. */
KIVCAM_API KIVCAM_BOOL KIVCAM_ColorConvExec(HCTBL conv, const KIVCAM_IMAGEDESC *image, void *dst);

/* ------------------------------------------------------------------------ */
/* Helpers                                                                    */
/* ------------------------------------------------------------------------ */

/* The 48-bit UID of a GigECameraInfo (stored most significant byte first). */
static inline uint64_t KIVCAM_GigEInfoUID(const GigECameraInfo *info)
{
    uint64_t uid = 0;
    for (int i = 0; i < 6; ++i)
        uid = (uid << 8) | info->UID[i];
    return uid;
}

#ifdef __cplusplus
} /* extern "C" */
#endif

/* Optional Windows names, for code ported from Windows hosts. */
#ifdef KIVCAM_WINDOWS_NAMES
typedef int BOOL;
typedef KIVCAM_BITMAPINFOHEADER BITMAPINFOHEADER;
typedef KIVCAM_RGBQUAD RGBQUAD;
typedef KIVCAM_BITMAPINFO BITMAPINFO;
#endif

#endif /* KIVCAM_KIVCAM_H */
