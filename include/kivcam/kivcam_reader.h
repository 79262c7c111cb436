/*
 * kivcam_reader.h - the reader's side of the output filter: takes the frames
 * that another process publishes with the KIVCAMFILTER_ functions.
 *
 * Link libkivcamreader.so (not libkivcam.so: a reader needs none of the
 * camera machinery and is never logged). The channel's objects are the
 * writer's own, named with its process id (kivcam.h, KIVCAMFILTER_*_NAME);
 * on Linux the named mutex is KivCam's own kind, which is why a reader
 * takes it through this interface rather than through the system.
 *
 * The rule both sides keep: the writer never hands out the slot the reader
 * took last. A frame taken with KIVCAMREADER_Take stays in place and
 * unchanged until the next take, with one exception: a writer that fills
 * slots in place (KIVCAMFILTER_GetAddr) and is told KIVCAMFILTER_NEWEST_SLOT
 * is writing the newest published frame's slot, so a reader that takes that
 * frame meanwhile may see it half old, half new. Frames copied in with
 * KIVCAMFILTER_OutPut are never seen torn.
 *
 * One reader per channel; one thread per reader object.
 */
#ifndef KIVCAM_KIVCAM_READER_H
#define KIVCAM_KIVCAM_READER_H

#include "kivcam/kivcam.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A reader of one process's frame channel (KIVCAMREADER_Open). */
typedef struct KIVCAMREADER KIVCAMREADER;

/* Opens the channel of process writerProcessId. Null when that process has
 * no channel (no KIVCAMFILTER_Alloc, or KIVCAMFILTER_Free since), when its
 * header describes no sensible channel, or when the objects can't be opened.
 * Creates nothing: a reader never leaves objects under the writer's names. */
KIVCAM_API KIVCAMREADER *KIVCAMREADER_Open(uint32_t writerProcessId);

/* Closes the reader (null is allowed). Frames taken are invalid afterwards. */
KIVCAM_API void KIVCAMREADER_Close(KIVCAMREADER *reader);

/* The channel's header as it was at open: Width, Height, UserValue,
 * FrameSize (Width * Height * 4) and SlotStride. */
KIVCAM_API void KIVCAMREADER_GetHeader(const KIVCAMREADER *reader, KIVCAMFILTER_HEADER *header);

/* Waits at most timeoutMs (KIVCAM_INFINITE: without limit) for the writer to
 * publish a frame (or purge). Returns how many publications and purges were
 * signalled since the last wait, 0 when none came within the time. One
 * return may stand for several frames, of which only the newest is there
 * to take: the difference to the frames taken is what the reader missed. */
KIVCAM_API uint32_t KIVCAMREADER_Wait(KIVCAMREADER *reader, uint32_t timeoutMs);

/* Takes the newest frame when the reader has not taken it yet: under the
 * filter mutex the read index becomes the write index. *frame receives the
 * frame's address (FrameSize bytes) in the reader's view of the slot.
 * Returns 1 taken, 0 nothing new (nothing published since the last take, or
 * the writer purged), -1 the filter mutex could not be had. */
KIVCAM_API int32_t KIVCAMREADER_Take(KIVCAMREADER *reader, const void **frame);

/* The processes of the process-ID table (every process with libkivcam.so
 * loaded) that have a channel now, in table order: up to capacity ids are
 * written to processIds; returns how many there are. */
KIVCAM_API uint32_t KIVCAMREADER_ListWriters(uint32_t *processIds, uint32_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* KIVCAM_KIVCAM_READER_H */
