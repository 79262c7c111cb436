/*
 * kivgev.h - what the network GigE Vision producer adds to GenTL.
 *
 * The network producer (built as gev/KivGigEGenTL.cti) finds and drives real
 * GigE Vision cameras over UDP. It answers the same producer-specific
 * extensions as the virtual GigE producer (device information 1000-1011,
 * interface event 1000, buffer information 1000/1001, the device-module and
 * data-stream registers from 0x100 listed in kivsim/kivsim.h, the 540-byte
 * packet information block, producer-allocated buffers), and the interface
 * information commands below.
 *
 * Settings (environment variables, read at GCInitLib):
 *   KIVGEV_INTERFACES   names of the network interfaces to use, separated by
 *                       commas or blanks (e.g. "lo" or "eth1,eth2"); unset:
 *                       every interface with an IPv4 address. Discovery
 *                       broadcasts go out on these interfaces only.
 *   KIVGEV_DEVICES      camera addresses to ask by unicast as well, each on
 *                       the used interface whose subnet holds it
 *   KIVGEV_DISCOVERY_MS how long a discovery waits for answers (default 300)
 *   KIVGEV_WATCH_MS     period of the background discovery that reports
 *                       arrivals and removals as interface event 1000
 *                       (default 2000, 0 = off); it runs only while that
 *                       event is registered
 *   KIVGEV_TIMEOUT_MS   GVCP acknowledge time-out (default 200)
 *   KIVGEV_RETRIES      GVCP attempts per command (default 3)
 *   KIVGEV_PACKET_TIMEOUT_MS   wait for a missing stream packet before it is
 *                       asked for again (default 20); KIVGEV_FRAME_TIMEOUT_MS
 *                       the wait after the last packet before a block is
 *                       delivered incomplete (default 200)
 */
#ifndef KIVGEV_KIVGEV_H
#define KIVGEV_KIVGEV_H

/* Interface information (IFGetInfo, TLGetInterfaceInfo). */
#define KIVGEV_INTERFACE_IP 1000u      /* UINT32, host order (127.0.0.1 = 0x7F000001) */
#define KIVGEV_INTERFACE_MASK 1001u    /* UINT32 */
#define KIVGEV_INTERFACE_MAC 1002u     /* UINT64, 48 bits */
#define KIVGEV_INTERFACE_LINK 1003u    /* BOOL8: up and running */
#define KIVGEV_INTERFACE_SPEED 1004u   /* UINT32, Mbit/s, 0 when unknown */
#define KIVGEV_INTERFACE_NAME 1005u    /* STRING: the system's name ("eth0") */

/* Device information beyond the virtual producer's (IFGetDeviceInfo, DevGetInfo). */
#define KIVGEV_DEVICE_MAC 1012u        /* UINT64, 48 bits */

/* Data-stream information (DSGetInfo): counters of the stream's receiver. */
#define KIVGEV_STREAM_STALE_PACKETS 1000u     /* UINT64: packets of finished or unknown blocks */
#define KIVGEV_STREAM_MALFORMED_PACKETS 1001u /* UINT64: datagrams that are no GVSP packet */
#define KIVGEV_STREAM_RESEND_REQUESTS 1002u   /* UINT64: PACKETRESEND commands sent */
#define KIVGEV_STREAM_ZERO_COPY_PACKETS 1003u /* UINT64: payload packets copied only once, straight into place */
#define KIVGEV_STREAM_RING 1004u              /* BOOL8: received through a packet ring, not the UDP socket */

#endif /* KIVGEV_KIVGEV_H */
