/*
 * kivsim.h - control interface of the KivCam virtual cameras.
 *
 * KivGigEGenTL.cti and KivUSBGenTL.cti are GenTL producers over simulated
 * cameras. Besides the GenTL entry points they export the functions below, so
 * that tests and demos can steer the simulation: plug and unplug cameras,
 * raise interface events, deliver frames on demand, choose the delivery status
 * of the next frames and make entry points fail. Resolve them with dlsym on the
 * same handle as the GenTL functions; each producer steers its own cameras.
 *
 * Every function but kivsim_failures_injected needs GCInitLib first and returns
 * 0 on success or a negative GC_ERROR code (GC_ERR_NOT_INITIALIZED,
 * GC_ERR_INVALID_INDEX, ...).
 *
 * Cameras are numbered 0..kivsim_camera_count()-1 in the order of the world
 * (see producers/README.md); kivsim_camera_index() maps a GenTL device ID to it.
 * Camera state (presence, delivery mode, frame credits, registers) is
 * machine-wide: a call in one process affects the camera as every other
 * process sees it. Fault injection and delivery statuses are per process.
 *
 * Test pattern. Every delivered image is a deterministic function of the pixel
 * position (x, y), the frame number f (0 for the first frame the camera
 * produces, counting machine-wide) and the colour component c:
 *
 *   r       = (y + 2 * (f mod 128)) mod 256            (rows scroll up by two per frame)
 *   V8(c)   = (x + r + 85 * c) mod 256                 (8-bit value)
 *   S_N(c)  = (V8(c) << (N - 8)) | ((x XOR r) mod 2^(N-8))   for N-bit samples, N > 8
 *
 * c = 0 for mono and raw samples, 0/1/2 for R/G/B, and 0/1/2 for Y/U(Cb)/V(Cr).
 * Bayer formats sample at each site the component of the filter colour there
 * (R = 0, G = 1, B = 2) for the format's phase. Layouts per format family:
 *   8-bit mono/Bayer: one byte V8. 16-bit containers (Mono10/12/16, Bayer10/12/16,
 *   RGB10/12/16, BGR...): little-endian words S_N. 10/12-bit packed mono and Bayer:
 *   pairs in 3 bytes, byte 0 = high 8 bits of pixel 0, byte 2 = high 8 bits of
 *   pixel 1, byte 1 = low bits of pixel 0 in bits 0..3 and of pixel 1 in bits 4..7.
 *   RGB8/BGR8/RGBa8/BGRa8: V8 per channel in the format's order, alpha 0xFF.
 *   RGB10V1Packed: byte 0 = low 2 bits of B | G << 2 | R << 4, bytes 1..3 = high
 *   8 bits of B, G, R. RGB10p32: little-endian R10 << 20 | G10 << 10 | B10.
 *   RGB12V1Packed: 2 pixels in 9 bytes, R0h (R0l|G0l<<4) G0h B0h (B0l|R1l<<4) R1h G1h (G1l|B1l<<4) B1h.
 *   RGB565p: R5 | G6 << 5 | B5 << 11 (BGR565p swaps R and B); 5/6-bit fields are V8 >> 3 / V8 >> 2.
 *   YUV: Y = V8(0), U = V8(1), V = V8(2); 4:2:2 pairs take U and V of their even
 *   pixel, 4:1:1 groups of their first pixel. Byte orders: UYVY (U Y0 V Y1),
 *   YUV422_8 (Y0 U Y1 V), YCbCr422_8 (Y0 V Y1 U), YUV8_UYV (U Y V), YCbCr8 (Y V U),
 *   YUV411 (U Y0 Y1 V Y2 Y3).
 * The pattern is rendered once per format and size and copied per frame.
 */
#ifndef KIVSIM_KIVSIM_H
#define KIVSIM_KIVSIM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#  define KIVSIM_API __attribute__((visibility("default")))
#else
#  define KIVSIM_API
#endif

/* Interface event codes (GenTL event type 1000 on an interface, 4-byte data). */
#define KIVSIM_EVENT_BUS_RESET 1u
#define KIVSIM_EVENT_POWER_UP 2u

/* Delivery statuses (buffer information 1000). */
#define KIVSIM_STATUS_OK 0u
#define KIVSIM_STATUS_INFO 0x40000001u          /* informational: image usable */
#define KIVSIM_STATUS_TRANSFER_ERROR 0xC0000001u /* transport failure of the stream */
#define KIVSIM_STATUS_BUFFER_TOO_SMALL 0xC0000010u /* image larger than the buffer */

/* Register numbers of the producer's own modules (GCReadPort/GCWritePort on the
 * device or data-stream handle, 4-byte little-endian values). */
#define KIVSIM_DEV_STREAM_TEST_RESULT 0x100u /* R: 0 passed, else 13 (packets too large) */
#define KIVSIM_DEV_STREAM_TEST 0x101u        /* W: run the stream test */
#define KIVSIM_DEV_STREAM_DESTINATION 0x102u /* RW */
#define KIVSIM_DEV_HEARTBEAT 0x103u          /* RW, ms */
#define KIVSIM_DEV_COMMAND_TIMEOUT 0x104u    /* RW, ms */
#define KIVSIM_DEV_STREAM_RESET 0x105u       /* W: USB stream reset request (counted) */
#define KIVSIM_DS_LINK 0x100u                /* RW: channel this stream follows (default own index + 1) */
#define KIVSIM_DS_PACKET_LOG 0x101u          /* R: 24 bytes, see kivsim_packet_log */
#define KIVSIM_DS_RUNNING 0x102u             /* RW: 1 = deliver images */
#define KIVSIM_DS_GIGE_FLAG 0x103u           /* RW */
#define KIVSIM_DS_GIGE_DESTINATION 0x104u    /* RW: IPv4 destination, mirrored in bootstrap 0x0D18 */
#define KIVSIM_DS_GIGE_INFO_OFFSET 0x105u    /* RW: where the packet information block goes */
#define KIVSIM_DS_GIGE_PACKET_COUNT 0x106u   /* RW; USB: stream parameter */
#define KIVSIM_DS_USB_LEADER_OFFSET 0x107u   /* RW: where the leader goes */
#define KIVSIM_DS_USB_TRAILER_OFFSET 0x108u  /* RW: where the trailer goes */

/* Packet log of a GigE image stream (data-stream register 0x101). */
typedef struct kivsim_packet_log {
  uint32_t frames;           /* images delivered */
  uint32_t incomplete;       /* images delivered with a non-good status */
  uint32_t packets;          /* packets received */
  uint32_t packets_missing;  /* packets reported missing */
  uint32_t packets_resent;   /* always 0 */
  uint32_t last_block_id;    /* block ID of the last image */
} kivsim_packet_log;

/* Packet information block of a GigE image, at the offset of register 0x105:
 * 540 bytes of these fields (rest zero), then a 32-bit word at +540 holding the
 * number of missing packets (0 = complete), then one bit per packet from +544. */
typedef struct kivsim_gige_info {
  uint32_t block_id;
  uint32_t packet_count;
  uint32_t packets_received;
  uint32_t packets_resent;
  uint32_t payload_size;
  uint32_t packet_payload;  /* image bytes per packet */
  uint64_t timestamp_ns;
  uint32_t pixel_format;
  uint32_t width;
  uint32_t height;
  uint32_t destination;
} kivsim_gige_info;

typedef struct kivsim_counters {
  uint64_t frames_produced;   /* machine-wide, by the camera */
  uint64_t frames_delivered;  /* into buffers of this process */
  uint64_t underruns;         /* frames this process had no buffer for */
  uint32_t announces;         /* DSAnnounceBuffer calls that succeeded */
  uint32_t revokes;
  uint32_t queues;            /* DSQueueBuffer calls that succeeded */
  uint32_t reset_requests;    /* writes of device register 0x105, machine-wide */
  uint32_t register_writes;   /* successful remote-register writes, machine-wide */
  uint32_t module_writes;     /* device/stream module register writes in this process */
  uint32_t waiting;           /* threads of this process blocked in EventGetData for its frames */
} kivsim_counters;

KIVSIM_API int32_t kivsim_camera_count(void);
/* Camera number of a device ID (as IFGetDeviceID gives it), or GC_ERR_INVALID_ID. */
KIVSIM_API int32_t kivsim_camera_index(const char *device_id);

/* Plugs a camera in (1) or out (0); its interface then raises a bus-reset event. */
KIVSIM_API int32_t kivsim_plug(uint32_t camera, int32_t plugged);
/* Raises interface event 1000 with `code` (KIVSIM_EVENT_BUS_RESET, KIVSIM_EVENT_POWER_UP, or any). */
KIVSIM_API int32_t kivsim_raise_interface_event(uint32_t interface_index, uint32_t code);

/* On-demand delivery: the camera produces frames only when told to; `frames`
 * more are produced as soon as acquisition runs (AcquisitionStart executed). */
KIVSIM_API int32_t kivsim_deliver(uint32_t camera, uint32_t frames);
/* Free-run at `fps` frames per second; 0 = as fast as this process queues buffers. */
KIVSIM_API int32_t kivsim_free_run(uint32_t camera, double fps);

/* The next `count` images delivered on the camera's first stream in this
 * process get `status` (buffer information 1000) and, if `use_value`, `value`
 * (buffer information 1001). */
KIVSIM_API int32_t kivsim_set_delivery_status(uint32_t camera, uint32_t status, uint32_t value, int32_t use_value,
                                              uint32_t count);

/* The next `count` calls of the named entry point (e.g. "IFOpenDevice") fail
 * with `error` and the text `text` (GCGetLastError). count 0 clears it. */
KIVSIM_API int32_t kivsim_fail_next(const char *entry_point, int32_t error, const char *text, uint32_t count);
/* How many injected failures have happened since the module was loaded.
 * Needs no GCInitLib: it counts the failures of GCInitLib (see below) and
 * those during GCCloseLib too. */
KIVSIM_API uint64_t kivsim_failures_injected(void);
/* Failures can also be set before anything else runs: GCInitLib reads the
 * environment variable KIVSIM_FAIL_NEXT, a comma-separated list of entry
 * points whose next call fails once with GC_ERR_ERROR and the text
 * "KIVSIM_FAIL_NEXT". Naming GCInitLib there makes GCInitLib itself fail. */
/* The next `count` successful remote-port reads report half of the requested size. */
KIVSIM_API int32_t kivsim_short_reads(uint32_t count);
/* Largest GigE packet size the stream test lets through. */
KIVSIM_API int32_t kivsim_set_packet_size_limit(uint32_t camera, uint32_t limit);

KIVSIM_API int32_t kivsim_get_counters(uint32_t camera, kivsim_counters *out);
/* Clears injected faults and delivery statuses of this process. */
KIVSIM_API int32_t kivsim_reset_faults(void);

#ifdef __cplusplus
}
#endif

#endif /* KIVSIM_KIVSIM_H */
