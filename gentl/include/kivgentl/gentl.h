/*
 * KivCam GenTL ABI: types, handles, error codes, enumerations, structures,
 * prototypes and function-pointer types of the GenTL transport-layer
 * interface (up to version 1.6). Plain C, usable from C11 and C++17.
 *
 * The library resolves producers' entry points through the P* typedefs;
 * the virtual producers define the functions declared here.
 */
#ifndef KIVGENTL_GENTL_H
#define KIVGENTL_GENTL_H

#include <stddef.h>
#include <stdint.h>

#define GenTLMajorVersion 1
#define GenTLMinorVersion 6
#define GenTLSubMinorVersion 0
#define GC_GENTL_HEADER_VERSION_CODE(maj, min, sub) (((maj) << 24) + ((min) << 16) + (sub))
#define GC_GENTL_HEADER_VERSION \
  GC_GENTL_HEADER_VERSION_CODE(GenTLMajorVersion, GenTLMinorVersion, GenTLSubMinorVersion)

/* Linkage: default visibility, default calling convention on 64-bit targets. */
#if defined(_WIN32)
#  if defined(GCTLI_NO_DECLSPEC_STATEMENTS)
#    define GC_IMPORT_EXPORT
#  elif defined(GCTLIDLL)
#    define GC_IMPORT_EXPORT __declspec(dllexport)
#  else
#    define GC_IMPORT_EXPORT __declspec(dllimport)
#  endif
#  if defined(_M_IX86) || defined(__i386__)
#    define GC_CALLTYPE __stdcall
#  else
#    define GC_CALLTYPE
#  endif
#elif defined(__GNUC__)
#  define GC_IMPORT_EXPORT __attribute__((visibility("default")))
#  if defined(__i386__)
#    define GC_CALLTYPE __attribute__((stdcall))
#  else
#    define GC_CALLTYPE
#  endif
#else
#  define GC_IMPORT_EXPORT
#  define GC_CALLTYPE
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- types */

#ifndef GC_USER_DEFINED_TYPES
#  ifdef __cplusplus
typedef bool bool8_t;
#  else
typedef uint8_t bool8_t;
#  endif
#endif

typedef int32_t GC_ERROR;

typedef void *TL_HANDLE;
typedef void *IF_HANDLE;
typedef void *DEV_HANDLE;
typedef void *DS_HANDLE;
typedef void *PORT_HANDLE;
typedef void *BUFFER_HANDLE;
typedef void *EVENTSRC_HANDLE;
typedef void *EVENT_HANDLE;

#define GENTL_INVALID_HANDLE NULL
#define GENTL_INFINITE 0xFFFFFFFFFFFFFFFFULL

#ifndef GC_GENTL_DONT_USE_TYPE_DEFINITIONS
#  define TLTypeMixedName "Mixed"
#  define TLTypeCustomName "Custom"
#  define TLTypeGEVName "GEV"
#  define TLTypeCLName "CL"
#  define TLTypeIIDCName "IIDC"
#  define TLTypeUVCName "UVC"
#  define TLTypeCXPName "CXP"
#  define TLTypeCLHSName "CLHS"
#  define TLTypeU3VName "U3V"
#  define TLTypeETHERNETName "Ethernet"
#  define TLTypePCIName "PCI"
#endif

#ifndef GC_GENTL_DONT_USE_MODULE_NAMES
#  define TLSystemModuleName "TLSystem"
#  define TLInterfaceModuleName "TLInterface"
#  define TLDeviceModuleName "TLDevice"
#  define TLDataStreamModuleName "TLDataStream"
#  define TLBufferModuleName "TLBuffer"
#  define TLRemoteDeviceModuleName "Device"
#endif

/* ---------------------------------------------------------- error codes */

enum GC_ERROR_LIST {
  GC_ERR_SUCCESS = 0,
  GC_ERR_ERROR = -1001,
  GC_ERR_NOT_INITIALIZED = -1002,
  GC_ERR_NOT_IMPLEMENTED = -1003,
  GC_ERR_RESOURCE_IN_USE = -1004,
  GC_ERR_ACCESS_DENIED = -1005,
  GC_ERR_INVALID_HANDLE = -1006,
  GC_ERR_INVALID_ID = -1007,
  GC_ERR_NO_DATA = -1008,
  GC_ERR_INVALID_PARAMETER = -1009,
  GC_ERR_IO = -1010,
  GC_ERR_TIMEOUT = -1011,
  GC_ERR_ABORT = -1012,
  GC_ERR_INVALID_BUFFER = -1013,
  GC_ERR_NOT_AVAILABLE = -1014,
  GC_ERR_INVALID_ADDRESS = -1015,
  GC_ERR_BUFFER_TOO_SMALL = -1016,
  GC_ERR_INVALID_INDEX = -1017,
  GC_ERR_PARSING_CHUNK_DATA = -1018,
  GC_ERR_INVALID_VALUE = -1019,
  GC_ERR_RESOURCE_EXHAUSTED = -1020,
  GC_ERR_OUT_OF_MEMORY = -1021,
  GC_ERR_BUSY = -1022,
  GC_ERR_AMBIGUOUS = -1023,
  GC_ERR_CUSTOM_ID = -10000
};

/* --------------------------------------------------------- enumerations */

enum TL_CHAR_ENCODING_LIST { TL_CHAR_ENCODING_ASCII = 0, TL_CHAR_ENCODING_UTF8 = 1 };
typedef int32_t TL_CHAR_ENCODING;

enum INFO_DATATYPE_LIST {
  INFO_DATATYPE_UNKNOWN = 0,
  INFO_DATATYPE_STRING = 1,
  INFO_DATATYPE_STRINGLIST = 2,
  INFO_DATATYPE_INT16 = 3,
  INFO_DATATYPE_UINT16 = 4,
  INFO_DATATYPE_INT32 = 5,
  INFO_DATATYPE_UINT32 = 6,
  INFO_DATATYPE_INT64 = 7,
  INFO_DATATYPE_UINT64 = 8,
  INFO_DATATYPE_FLOAT64 = 9,
  INFO_DATATYPE_PTR = 10,
  INFO_DATATYPE_BOOL8 = 11,
  INFO_DATATYPE_SIZET = 12,
  INFO_DATATYPE_BUFFER = 13,
  INFO_DATATYPE_PTRDIFF = 14,
  INFO_DATATYPE_CUSTOM_ID = 1000
};
typedef int32_t INFO_DATATYPE;

enum TL_INFO_CMD_LIST {
  TL_INFO_ID = 0,
  TL_INFO_VENDOR = 1,
  TL_INFO_MODEL = 2,
  TL_INFO_VERSION = 3,
  TL_INFO_TLTYPE = 4,
  TL_INFO_NAME = 5,
  TL_INFO_PATHNAME = 6,
  TL_INFO_DISPLAYNAME = 7,
  TL_INFO_CHAR_ENCODING = 8,
  TL_INFO_GENTL_VER_MAJOR = 9,
  TL_INFO_GENTL_VER_MINOR = 10,
  TL_INFO_CUSTOM_ID = 1000
};
typedef int32_t TL_INFO_CMD;

enum INTERFACE_INFO_CMD_LIST {
  INTERFACE_INFO_ID = 0,
  INTERFACE_INFO_DISPLAYNAME = 1,
  INTERFACE_INFO_TLTYPE = 2,
  INTERFACE_INFO_CUSTOM_ID = 1000
};
typedef int32_t INTERFACE_INFO_CMD;

enum DEVICE_INFO_CMD_LIST {
  DEVICE_INFO_ID = 0,
  DEVICE_INFO_VENDOR = 1,
  DEVICE_INFO_MODEL = 2,
  DEVICE_INFO_TLTYPE = 3,
  DEVICE_INFO_DISPLAYNAME = 4,
  DEVICE_INFO_ACCESS_STATUS = 5,
  DEVICE_INFO_USER_DEFINED_NAME = 6,
  DEVICE_INFO_SERIAL_NUMBER = 7,
  DEVICE_INFO_VERSION = 8,
  DEVICE_INFO_TIMESTAMP_FREQUENCY = 9,
  DEVICE_INFO_CUSTOM_ID = 1000
};
typedef int32_t DEVICE_INFO_CMD;

enum DEVICE_ACCESS_FLAGS_LIST {
  DEVICE_ACCESS_UNKNOWN = 0,
  DEVICE_ACCESS_NONE = 1,
  DEVICE_ACCESS_READONLY = 2,
  DEVICE_ACCESS_CONTROL = 3,
  DEVICE_ACCESS_EXCLUSIVE = 4,
  DEVICE_ACCESS_CUSTOM_ID = 1000
};
typedef int32_t DEVICE_ACCESS_FLAGS;

enum DEVICE_ACCESS_STATUS_LIST {
  DEVICE_ACCESS_STATUS_UNKNOWN = 0,
  DEVICE_ACCESS_STATUS_READWRITE = 1,
  DEVICE_ACCESS_STATUS_READONLY = 2,
  DEVICE_ACCESS_STATUS_NOACCESS = 3,
  DEVICE_ACCESS_STATUS_BUSY = 4,
  DEVICE_ACCESS_STATUS_OPEN_READWRITE = 5,
  DEVICE_ACCESS_STATUS_OPEN_READONLY = 6,
  DEVICE_ACCESS_STATUS_CUSTOM_ID = 1000
};
typedef int32_t DEVICE_ACCESS_STATUS;

enum ACQ_QUEUE_TYPE_LIST {
  ACQ_QUEUE_INPUT_TO_OUTPUT = 0,
  ACQ_QUEUE_OUTPUT_DISCARD = 1,
  ACQ_QUEUE_ALL_TO_INPUT = 2,
  ACQ_QUEUE_UNQUEUED_TO_INPUT = 3,
  ACQ_QUEUE_ALL_DISCARD = 4,
  ACQ_QUEUE_CUSTOM_ID = 1000
};
typedef int32_t ACQ_QUEUE_TYPE;

enum ACQ_START_FLAGS_LIST { ACQ_START_FLAGS_DEFAULT = 0, ACQ_START_FLAGS_CUSTOM_ID = 1000 };
typedef int32_t ACQ_START_FLAGS;

enum ACQ_STOP_FLAGS_LIST {
  ACQ_STOP_FLAGS_DEFAULT = 0,
  ACQ_STOP_FLAGS_KILL = 1,
  ACQ_STOP_FLAGS_CUSTOM_ID = 1000
};
typedef int32_t ACQ_STOP_FLAGS;

enum STREAM_INFO_CMD_LIST {
  STREAM_INFO_ID = 0,
  STREAM_INFO_NUM_DELIVERED = 1,
  STREAM_INFO_NUM_UNDERRUN = 2,
  STREAM_INFO_NUM_ANNOUNCED = 3,
  STREAM_INFO_NUM_QUEUED = 4,
  STREAM_INFO_NUM_AWAIT_DELIVERY = 5,
  STREAM_INFO_NUM_STARTED = 6,
  STREAM_INFO_PAYLOAD_SIZE = 7,
  STREAM_INFO_IS_GRABBING = 8,
  STREAM_INFO_DEFINES_PAYLOADSIZE = 9,
  STREAM_INFO_TLTYPE = 10,
  STREAM_INFO_NUM_CHUNKS_MAX = 11,
  STREAM_INFO_BUF_ANNOUNCE_MIN = 12,
  STREAM_INFO_BUF_ALIGNMENT = 13,
  STREAM_INFO_FLOW_TABLE = 14,
  STREAM_INFO_GENDC_PREFETCH_DESCRIPTOR = 15,
  STREAM_INFO_CUSTOM_ID = 1000
};
typedef int32_t STREAM_INFO_CMD;

enum BUFFER_INFO_CMD_LIST {
  BUFFER_INFO_BASE = 0,
  BUFFER_INFO_SIZE = 1,
  BUFFER_INFO_USER_PTR = 2,
  BUFFER_INFO_TIMESTAMP = 3,
  BUFFER_INFO_NEW_DATA = 4,
  BUFFER_INFO_IS_QUEUED = 5,
  BUFFER_INFO_IS_ACQUIRING = 6,
  BUFFER_INFO_IS_INCOMPLETE = 7,
  BUFFER_INFO_TLTYPE = 8,
  BUFFER_INFO_SIZE_FILLED = 9,
  BUFFER_INFO_WIDTH = 10,
  BUFFER_INFO_HEIGHT = 11,
  BUFFER_INFO_XOFFSET = 12,
  BUFFER_INFO_YOFFSET = 13,
  BUFFER_INFO_XPADDING = 14,
  BUFFER_INFO_YPADDING = 15,
  BUFFER_INFO_FRAMEID = 16,
  BUFFER_INFO_IMAGEPRESENT = 17,
  BUFFER_INFO_IMAGEOFFSET = 18,
  BUFFER_INFO_PAYLOADTYPE = 19,
  BUFFER_INFO_PIXELFORMAT = 20,
  BUFFER_INFO_PIXELFORMAT_NAMESPACE = 21,
  BUFFER_INFO_DELIVERED_IMAGEHEIGHT = 22,
  BUFFER_INFO_DELIVERED_CHUNKPAYLOADSIZE = 23,
  BUFFER_INFO_CHUNKLAYOUTID = 24,
  BUFFER_INFO_FILENAME = 25,
  BUFFER_INFO_PIXEL_ENDIANNESS = 26,
  BUFFER_INFO_DATA_SIZE = 27,
  BUFFER_INFO_TIMESTAMP_NS = 28,
  BUFFER_INFO_DATA_LARGER_THAN_BUFFER = 29,
  BUFFER_INFO_CONTAINS_CHUNKDATA = 30,
  BUFFER_INFO_IS_COMPOSITE = 31,
  BUFFER_INFO_CUSTOM_ID = 1000
};
typedef int32_t BUFFER_INFO_CMD;

enum BUFFER_PART_INFO_CMD_LIST {
  BUFFER_PART_INFO_BASE = 0,
  BUFFER_PART_INFO_DATA_SIZE = 1,
  BUFFER_PART_INFO_DATA_TYPE = 2,
  BUFFER_PART_INFO_DATA_FORMAT = 3,
  BUFFER_PART_INFO_DATA_FORMAT_NAMESPACE = 4,
  BUFFER_PART_INFO_WIDTH = 5,
  BUFFER_PART_INFO_HEIGHT = 6,
  BUFFER_PART_INFO_XOFFSET = 7,
  BUFFER_PART_INFO_YOFFSET = 8,
  BUFFER_PART_INFO_XPADDING = 9,
  BUFFER_PART_INFO_SOURCE_ID = 10,
  BUFFER_PART_INFO_DELIVERED_IMAGEHEIGHT = 11,
  BUFFER_PART_INFO_REGION_ID = 12,
  BUFFER_PART_INFO_DATA_PURPOSE_ID = 13,
  BUFFER_PART_INFO_CUSTOM_ID = 1000
};
typedef int32_t BUFFER_PART_INFO_CMD;

enum PAYLOADTYPE_INFO_IDS {
  PAYLOAD_TYPE_UNKNOWN = 0,
  PAYLOAD_TYPE_IMAGE = 1,
  PAYLOAD_TYPE_RAW_DATA = 2,
  PAYLOAD_TYPE_FILE = 3,
  PAYLOAD_TYPE_CHUNK_DATA = 4,
  PAYLOAD_TYPE_JPEG = 5,
  PAYLOAD_TYPE_JPEG2000 = 6,
  PAYLOAD_TYPE_H264 = 7,
  PAYLOAD_TYPE_CHUNK_ONLY = 8,
  PAYLOAD_TYPE_DEVICE_SPECIFIC = 9,
  PAYLOAD_TYPE_MULTI_PART = 10,
  PAYLOAD_TYPE_GENDC = 11,
  PAYLOAD_TYPE_CUSTOM_ID = 1000
};
typedef int32_t PAYLOADTYPE_INFO_ID;

enum PIXELFORMAT_NAMESPACE_IDS {
  PIXELFORMAT_NAMESPACE_UNKNOWN = 0,
  PIXELFORMAT_NAMESPACE_GEV = 1,
  PIXELFORMAT_NAMESPACE_IIDC = 2,
  PIXELFORMAT_NAMESPACE_PFNC_16BIT = 3,
  PIXELFORMAT_NAMESPACE_PFNC_32BIT = 4,
  PIXELFORMAT_NAMESPACE_CUSTOM_ID = 1000
};
typedef int32_t PIXELFORMAT_NAMESPACE_ID;

enum PIXELENDIANNESS_IDS {
  PIXELENDIANNESS_UNKNOWN = 0,
  PIXELENDIANNESS_LITTLE = 1,
  PIXELENDIANNESS_BIG = 2
};
typedef int32_t PIXELENDIANNESS_ID;

enum PARTDATATYPE_IDS {
  PART_DATATYPE_UNKNOWN = 0,
  PART_DATATYPE_2D_IMAGE = 1,
  PART_DATATYPE_2D_PLANE_BIPLANAR = 2,
  PART_DATATYPE_2D_PLANE_TRIPLANAR = 3,
  PART_DATATYPE_2D_PLANE_QUADPLANAR = 4,
  PART_DATATYPE_3D_IMAGE = 5,
  PART_DATATYPE_3D_PLANE_BIPLANAR = 6,
  PART_DATATYPE_3D_PLANE_TRIPLANAR = 7,
  PART_DATATYPE_3D_PLANE_QUADPLANAR = 8,
  PART_DATATYPE_CONFIDENCE_MAP = 9,
  PART_DATATYPE_JPEG = 10,
  PART_DATATYPE_JPEG2000 = 11,
  PART_DATATYPE_CUSTOM_ID = 1000
};
typedef int32_t PARTDATATYPE_ID;

enum PORT_INFO_CMD_LIST {
  PORT_INFO_ID = 0,
  PORT_INFO_VENDOR = 1,
  PORT_INFO_MODEL = 2,
  PORT_INFO_TLTYPE = 3,
  PORT_INFO_MODULE = 4,
  PORT_INFO_LITTLE_ENDIAN = 5,
  PORT_INFO_BIG_ENDIAN = 6,
  PORT_INFO_ACCESS_READ = 7,
  PORT_INFO_ACCESS_WRITE = 8,
  PORT_INFO_ACCESS_NA = 9,
  PORT_INFO_ACCESS_NI = 10,
  PORT_INFO_VERSION = 11,
  PORT_INFO_PORTNAME = 12,
  PORT_INFO_CUSTOM_ID = 1000
};
typedef int32_t PORT_INFO_CMD;

enum URL_SCHEME_IDS {
  URL_SCHEME_LOCAL = 0,
  URL_SCHEME_HTTP = 1,
  URL_SCHEME_FILE = 2,
  URL_SCHEME_CUSTOM_ID = 1000
};
typedef int32_t URL_SCHEME_ID;

enum URL_INFO_CMD_LIST {
  URL_INFO_URL = 0,
  URL_INFO_SCHEMA_VER_MAJOR = 1,
  URL_INFO_SCHEMA_VER_MINOR = 2,
  URL_INFO_FILE_VER_MAJOR = 3,
  URL_INFO_FILE_VER_MINOR = 4,
  URL_INFO_FILE_VER_SUBMINOR = 5,
  URL_INFO_FILE_SHA1_HASH = 6,
  URL_INFO_FILE_REGISTER_ADDRESS = 7,
  URL_INFO_FILE_SIZE = 8,
  URL_INFO_SCHEME = 9,
  URL_INFO_FILENAME = 10,
  URL_INFO_CUSTOM_ID = 1000
};
typedef int32_t URL_INFO_CMD;

enum EVENT_TYPE_LIST {
  EVENT_ERROR = 0,
  EVENT_NEW_BUFFER = 1,
  EVENT_FEATURE_INVALIDATE = 2,
  EVENT_FEATURE_CHANGE = 3,
  EVENT_REMOTE_DEVICE = 4,
  EVENT_MODULE = 5,
  EVENT_CUSTOM_ID = 1000
};
typedef int32_t EVENT_TYPE;
/* The pre-1.4 name of EVENT_REMOTE_DEVICE. */
#define EVENT_FEATURE_DEVEVENT EVENT_REMOTE_DEVICE

enum EVENT_INFO_CMD_LIST {
  EVENT_EVENT_TYPE = 0,
  EVENT_NUM_IN_QUEUE = 1,
  EVENT_NUM_FIRED = 2,
  EVENT_SIZE_MAX = 3,
  EVENT_INFO_DATA_SIZE_MAX = 4,
  EVENT_INFO_CUSTOM_ID = 1000
};
typedef int32_t EVENT_INFO_CMD;

enum EVENT_DATA_INFO_CMD_LIST {
  EVENT_DATA_ID = 0,
  EVENT_DATA_VALUE = 1,
  EVENT_DATA_NUMID = 2,
  EVENT_DATA_CUSTOM_ID = 1000
};
typedef int32_t EVENT_DATA_INFO_CMD;

enum FLOW_INFO_CMD_LIST { FLOW_INFO_SIZE = 0, FLOW_INFO_CUSTOM_ID = 1000 };
typedef int32_t FLOW_INFO_CMD;

enum SEGMENT_INFO_CMD_LIST {
  SEGMENT_INFO_BASE = 0,
  SEGMENT_INFO_SIZE = 1,
  SEGMENT_INFO_IS_INCOMPLETE = 2,
  SEGMENT_INFO_SIZE_FILLED = 3,
  SEGMENT_INFO_DATA_SIZE = 4,
  SEGMENT_INFO_CUSTOM_ID = 1000
};
typedef int32_t SEGMENT_INFO_CMD;

/* ----------------------------------------------------------- structures */

#pragma pack(push, 1)

typedef struct S_EVENT_NEW_BUFFER {
  BUFFER_HANDLE BufferHandle;
  void *pUserPointer;
} EVENT_NEW_BUFFER_DATA;

typedef struct S_PORT_REGISTER_STACK_ENTRY {
  uint64_t Address;
  void *pBuffer;
  size_t Size;
} PORT_REGISTER_STACK_ENTRY;

typedef struct S_SINGLE_CHUNK_DATA {
  uint64_t ChunkID;
  ptrdiff_t ChunkOffset;
  size_t ChunkLength;
} SINGLE_CHUNK_DATA;

typedef struct S_DS_BUFFER_INFO_STACKED {
  BUFFER_INFO_CMD iInfoCmd;
  INFO_DATATYPE iType;
  void *pBuffer;
  size_t iSize;
  GC_ERROR iResult;
} DS_BUFFER_INFO_STACKED;

typedef struct S_DS_BUFFER_PART_INFO_STACKED {
  uint32_t iPartIndex;
  BUFFER_PART_INFO_CMD iInfoCmd;
  GC_ERROR iResult;
  INFO_DATATYPE iType;
  void *pBuffer;
  size_t iSize;
} DS_BUFFER_PART_INFO_STACKED;

#pragma pack(pop)

/* --------------------------------------------- prototypes and pointers */

#define GC_API GC_IMPORT_EXPORT GC_ERROR GC_CALLTYPE
#define GC_API_P(function) typedef GC_ERROR(GC_CALLTYPE *function)

/* Each entry point once: name, parameter list. Expands to a prototype and a
 * pointer type P<name>. */
#define KIVGENTL_ENTRY(name, params) \
  GC_API name params;                \
  GC_API_P(P##name) params;

KIVGENTL_ENTRY(GCGetInfo, (TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(GCGetLastError, (GC_ERROR *piErrorCode, char *sErrText, size_t *piSize))
KIVGENTL_ENTRY(GCInitLib, (void))
KIVGENTL_ENTRY(GCCloseLib, (void))
KIVGENTL_ENTRY(GCReadPort, (PORT_HANDLE hPort, uint64_t iAddress, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(GCWritePort, (PORT_HANDLE hPort, uint64_t iAddress, const void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(GCGetPortURL, (PORT_HANDLE hPort, char *sURL, size_t *piSize))
KIVGENTL_ENTRY(GCGetPortInfo, (PORT_HANDLE hPort, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                               void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(GCRegisterEvent, (EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID, EVENT_HANDLE *phEvent))
KIVGENTL_ENTRY(GCUnregisterEvent, (EVENTSRC_HANDLE hEventSrc, EVENT_TYPE iEventID))
KIVGENTL_ENTRY(EventGetData, (EVENT_HANDLE hEvent, void *pBuffer, size_t *piSize, uint64_t iTimeout))
KIVGENTL_ENTRY(EventGetDataInfo, (EVENT_HANDLE hEvent, const void *pInBuffer, size_t iInSize,
                                  EVENT_DATA_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pOutBuffer,
                                  size_t *piOutSize))
KIVGENTL_ENTRY(EventGetInfo, (EVENT_HANDLE hEvent, EVENT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                              void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(EventFlush, (EVENT_HANDLE hEvent))
KIVGENTL_ENTRY(EventKill, (EVENT_HANDLE hEvent))
KIVGENTL_ENTRY(TLOpen, (TL_HANDLE *phTL))
KIVGENTL_ENTRY(TLClose, (TL_HANDLE hTL))
KIVGENTL_ENTRY(TLGetInfo, (TL_HANDLE hTL, TL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                           size_t *piSize))
KIVGENTL_ENTRY(TLGetNumInterfaces, (TL_HANDLE hTL, uint32_t *piNumIfaces))
KIVGENTL_ENTRY(TLGetInterfaceID, (TL_HANDLE hTL, uint32_t iIndex, char *sID, size_t *piSize))
KIVGENTL_ENTRY(TLGetInterfaceInfo, (TL_HANDLE hTL, const char *sIfaceID, INTERFACE_INFO_CMD iInfoCmd,
                                    INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(TLOpenInterface, (TL_HANDLE hTL, const char *sIfaceID, IF_HANDLE *phIface))
KIVGENTL_ENTRY(TLUpdateInterfaceList, (TL_HANDLE hTL, bool8_t *pbChanged, uint64_t iTimeout))
KIVGENTL_ENTRY(IFClose, (IF_HANDLE hIface))
KIVGENTL_ENTRY(IFGetInfo, (IF_HANDLE hIface, INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                           void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(IFGetNumDevices, (IF_HANDLE hIface, uint32_t *piNumDevices))
KIVGENTL_ENTRY(IFGetDeviceID, (IF_HANDLE hIface, uint32_t iIndex, char *sIDeviceID, size_t *piSize))
KIVGENTL_ENTRY(IFUpdateDeviceList, (IF_HANDLE hIface, bool8_t *pbChanged, uint64_t iTimeout))
KIVGENTL_ENTRY(IFGetDeviceInfo, (IF_HANDLE hIface, const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd,
                                 INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(IFOpenDevice, (IF_HANDLE hIface, const char *sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag,
                              DEV_HANDLE *phDevice))
KIVGENTL_ENTRY(DevGetPort, (DEV_HANDLE hDevice, PORT_HANDLE *phRemoteDevice))
KIVGENTL_ENTRY(DevGetNumDataStreams, (DEV_HANDLE hDevice, uint32_t *piNumDataStreams))
KIVGENTL_ENTRY(DevGetDataStreamID, (DEV_HANDLE hDevice, uint32_t iIndex, char *sDataStreamID,
                                    size_t *piSize))
KIVGENTL_ENTRY(DevOpenDataStream, (DEV_HANDLE hDevice, const char *sDataStreamID, DS_HANDLE *phDataStream))
KIVGENTL_ENTRY(DevGetInfo, (DEV_HANDLE hDevice, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                            void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(DevClose, (DEV_HANDLE hDevice))
KIVGENTL_ENTRY(DSAnnounceBuffer, (DS_HANDLE hDataStream, void *pBuffer, size_t iSize, void *pPrivate,
                                  BUFFER_HANDLE *phBuffer))
KIVGENTL_ENTRY(DSAllocAndAnnounceBuffer, (DS_HANDLE hDataStream, size_t iSize, void *pPrivate,
                                          BUFFER_HANDLE *phBuffer))
KIVGENTL_ENTRY(DSFlushQueue, (DS_HANDLE hDataStream, ACQ_QUEUE_TYPE iOperation))
KIVGENTL_ENTRY(DSStartAcquisition, (DS_HANDLE hDataStream, ACQ_START_FLAGS iStartFlags,
                                    uint64_t iNumToAcquire))
KIVGENTL_ENTRY(DSStopAcquisition, (DS_HANDLE hDataStream, ACQ_STOP_FLAGS iStopFlags))
KIVGENTL_ENTRY(DSGetInfo, (DS_HANDLE hDataStream, STREAM_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                           void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(DSGetBufferID, (DS_HANDLE hDataStream, uint32_t iIndex, BUFFER_HANDLE *phBuffer))
KIVGENTL_ENTRY(DSClose, (DS_HANDLE hDataStream))
KIVGENTL_ENTRY(DSRevokeBuffer, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, void **pBuffer,
                                void **pPrivate))
KIVGENTL_ENTRY(DSQueueBuffer, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer))
KIVGENTL_ENTRY(DSGetBufferInfo, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, BUFFER_INFO_CMD iInfoCmd,
                                 INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
/* 1.1 */
KIVGENTL_ENTRY(GCGetNumPortURLs, (PORT_HANDLE hPort, uint32_t *piNumURLs))
KIVGENTL_ENTRY(GCGetPortURLInfo, (PORT_HANDLE hPort, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd,
                                  INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(GCReadPortStacked, (PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY *pEntries,
                                   size_t *piNumEntries))
KIVGENTL_ENTRY(GCWritePortStacked, (PORT_HANDLE hPort, PORT_REGISTER_STACK_ENTRY *pEntries,
                                    size_t *piNumEntries))
/* 1.3 */
KIVGENTL_ENTRY(DSGetBufferChunkData, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                                      SINGLE_CHUNK_DATA *pChunkData, size_t *piNumChunks))
/* 1.4 */
KIVGENTL_ENTRY(IFGetParentTL, (IF_HANDLE hIface, TL_HANDLE *phSystem))
KIVGENTL_ENTRY(DevGetParentIF, (DEV_HANDLE hDevice, IF_HANDLE *phIface))
KIVGENTL_ENTRY(DSGetParentDev, (DS_HANDLE hDataStream, DEV_HANDLE *phDevice))
/* 1.5 */
KIVGENTL_ENTRY(DSGetNumBufferParts, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t *piNumParts))
KIVGENTL_ENTRY(DSGetBufferPartInfo, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t iPartIndex,
                                     BUFFER_PART_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                     size_t *piSize))
/* 1.6 */
KIVGENTL_ENTRY(DSAnnounceCompositeBuffer, (DS_HANDLE hDataStream, size_t iNumSegments, void **ppSegments,
                                           size_t *piSizes, void *pPrivate, BUFFER_HANDLE *phBuffer))
KIVGENTL_ENTRY(DSGetBufferInfoStacked, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                                        DS_BUFFER_INFO_STACKED *pInfoStacked, size_t iNumInfos))
KIVGENTL_ENTRY(DSGetBufferPartInfoStacked, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                                            DS_BUFFER_PART_INFO_STACKED *pInfoStacked, size_t iNumInfos))
KIVGENTL_ENTRY(DSGetNumFlows, (DS_HANDLE hDataStream, uint32_t *piNumFlows))
KIVGENTL_ENTRY(DSGetFlowInfo, (DS_HANDLE hDataStream, uint32_t iFlowIndex, FLOW_INFO_CMD iInfoCmd,
                               INFO_DATATYPE *piType, void *pBuffer, size_t *piSize))
KIVGENTL_ENTRY(DSGetNumBufferSegments, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer,
                                        uint32_t *piNumSegments))
KIVGENTL_ENTRY(DSGetBufferSegmentInfo, (DS_HANDLE hDataStream, BUFFER_HANDLE hBuffer, uint32_t iSegmentIndex,
                                        SEGMENT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                        size_t *piSize))

#undef KIVGENTL_ENTRY

#ifdef __cplusplus
} /* extern "C" */
#endif

/* The packed layouts consumers and producers exchange (64-bit targets). */
#if UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
#  if defined(__cplusplus)
static_assert(sizeof(EVENT_NEW_BUFFER_DATA) == 16, "new-buffer event data is 16 bytes");
static_assert(sizeof(PORT_REGISTER_STACK_ENTRY) == 24, "stack entry is 24 bytes");
static_assert(sizeof(DS_BUFFER_INFO_STACKED) == 28, "stacked buffer info is packed to 28 bytes");
static_assert(sizeof(DS_BUFFER_PART_INFO_STACKED) == 32, "stacked part info is 32 bytes");
#  else
_Static_assert(sizeof(EVENT_NEW_BUFFER_DATA) == 16, "new-buffer event data is 16 bytes");
_Static_assert(sizeof(PORT_REGISTER_STACK_ENTRY) == 24, "stack entry is 24 bytes");
_Static_assert(sizeof(DS_BUFFER_INFO_STACKED) == 28, "stacked buffer info is packed to 28 bytes");
_Static_assert(sizeof(DS_BUFFER_PART_INFO_STACKED) == 32, "stacked part info is 32 bytes");
#  endif
#endif

#endif /* KIVGENTL_GENTL_H */
