// Acquisition through the exports on the virtual cameras: the checks of
// every export, the places a buffer goes through, completions and their
// statuses, VSync tokens, and what every pixel format looks like once
// grabbed and converted. The cameras deliver on demand, so every frame
// here is one the test asked for.
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "cam_env.h"
#include "kivgenapi/KivGenApi.h"
#include "pixfmt.h"

namespace camtest {
namespace {

class Acquisition : public CameraTest {
 protected:
  KivGenApi::CNodeMapRef* Map(HCAMERA h) {
    void* raw = nullptr;
    EXPECT_EQ(lib_->KIVCAM_GetNodeMap(h, &raw), KIVCAM_TRUE);
    return static_cast<KivGenApi::CNodeMapRef*>(raw);
  }
  void SetInt(HCAMERA h, const char* name, int64_t value) {
    KivGenApi::CIntegerPtr(Map(h)->_GetNode(name))->SetValue(value);
  }
  // Frames of 64x8, and a conversion handle with the same explicit settings
  // as the camera's engine (shift 4): what the two make of a frame must agree.
  HCTBL SmallFramesAndAHandle(HCAMERA h) {
    SetInt(h, "Width", 64);
    SetInt(h, "Height", 8);
    KIVCAM_CONVMODE mode{0, 4, 0, 0, 0};
    HCTBL handle = nullptr;
    EXPECT_EQ(lib_->KIVCAM_CreateConvHandle(&handle, &mode, nullptr), KIVCAM_TRUE);
    EXPECT_EQ(lib_->KIVCAM_ConvMode(h, &mode, nullptr), KIVCAM_TRUE);
    return handle;
  }
  // The camera's conversion of `b` next to the handle's of `data` read as
  // `code`: the handle's last error (both alike when it converted).
  uint32_t ConvertBoth(HCAMERA h, ImageBuffer* b, HCTBL handle, const void* data, uint32_t code) {
    // The fourth byte of a 32-bit pixel is never written: the same fill for both.
    std::vector<uint8_t> by_camera(64 * 8 * 4, 0x11), by_handle(64 * 8 * 4, 0x11);
    KIVCAM_IMAGEDESC desc{64, 8, data, b->PayloadSize, code, 1};
    const uint32_t error = Err(lib_->KIVCAM_ColorConvExec(handle, &desc, by_handle.data()));
    if (error != kSucceeded) return error;
    EXPECT_EQ(lib_->KIVCAM_ImageConvExec(h, b, by_camera.data()), KIVCAM_TRUE);
    EXPECT_EQ(by_camera, by_handle);
    return error;
  }
  // Stopped, released and every buffer freed: ready for another format.
  void StopAndFreeAll(HCAMERA h) {
    ASSERT_EQ(lib_->KIVCAM_ImageStop(h), KIVCAM_TRUE);
    ASSERT_EQ(lib_->KIVCAM_ResourceRelease(h), KIVCAM_TRUE);
    ASSERT_EQ(lib_->KIVCAM_ImageFreeAll(h), KIVCAM_TRUE);
  }
};

// ---- checks ---------------------------------------------------------------------

TEST_F(Acquisition, EveryExportChecksInItsOrderOnBothKinds) {
  Load();
  Cam gige = OpenOnDemand(kGigE1), usb = OpenOnDemand(kUsb1);
  CamLib& l = *lib_;
  ImageBuffer* b = nullptr;
  HVSYNC token = nullptr;
  GigEPacketLog plog;
  auto cb = [](HCAMERA, void*, uint32_t, uint32_t, uint32_t, ImageInfo*, void*) {};
  for (HCAMERA h : {gige.h, usb.h}) {
    SCOPED_TRACE(h == gige.h ? "GigE" : "USB");
    // Before the resources: 9 everywhere, null pointers 1 first.
    EXPECT_EQ(Err(l.KIVCAM_ImageAlloc(h, nullptr)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_ImageAlloc(h, &b)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(Err(l.KIVCAM_ResourceRelease(h)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(Err(l.KIVCAM_ImageStart(h)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(Err(l.KIVCAM_ImageStop(h)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(Err(l.KIVCAM_VSyncReq(h, nullptr)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_VSyncReq(h, &token)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(Err(l.KIVCAM_SetImageCallBack(h, nullptr, cb, 0, 0)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_SetImageCallBack(h, nullptr, cb, 4, 0)), KIVCAM_ERR_NOT_ALLOCATED);
    EXPECT_EQ(l.KIVCAM_SetImageCallBack(h, nullptr, nullptr, 0, 0), KIVCAM_TRUE);  // none: nothing to stop
    EXPECT_EQ(l.KIVCAM_ImageReqAbortAll(h), KIVCAM_TRUE);
    EXPECT_EQ(Err(l.KIVCAM_GetGigEPktLog(h, nullptr)), KIVCAM_ERR_PARAM);
    // Allocated: 8, then start and stop rules.
    ASSERT_EQ(l.KIVCAM_ResourceAlloc(h), KIVCAM_TRUE);
    EXPECT_EQ(Err(l.KIVCAM_ResourceAlloc(h)), KIVCAM_ERR_ALLOCATED);
    EXPECT_EQ(Err(l.KIVCAM_ImageStop(h)), KIVCAM_ERR_NOT_RUNNING);
    ASSERT_EQ(l.KIVCAM_ImageStart(h), KIVCAM_TRUE);
    EXPECT_EQ(Err(l.KIVCAM_ImageStart(h)), KIVCAM_ERR_RUNNING);
    EXPECT_EQ(Err(l.KIVCAM_ResourceRelease(h)), KIVCAM_ERR_RUNNING);
    EXPECT_EQ(Err(l.KIVCAM_ImageFreeAll(h)), KIVCAM_ERR_RUNNING);
    EXPECT_EQ(l.KIVCAM_ImageStop(h), KIVCAM_TRUE);
  }
  // The GigE exports: the address before the kind, the kind before the rest.
  const uint8_t bad_group[4] = {239, 0, 0, 1}, high_group[4] = {239, 128, 1, 1};
  EXPECT_EQ(Err(l.KIVCAM_ResourceAllocGigE(usb.h, bad_group, 0)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(l.KIVCAM_ResourceAllocGigE(gige.h, high_group, 0)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(l.KIVCAM_ResourceAllocGigE(usb.h, nullptr, 0)), KIVCAM_ERR_NOT_GIGE);
  EXPECT_EQ(Err(l.KIVCAM_ResourceAllocGigE(gige.h, nullptr, 0)), KIVCAM_ERR_ALLOCATED);
  EXPECT_EQ(Err(l.KIVCAM_TestStream(usb.h)), KIVCAM_ERR_NOT_GIGE);
  EXPECT_EQ(Err(l.KIVCAM_TestStream(gige.h)), KIVCAM_ERR_ALLOCATED);
  EXPECT_EQ(Err(l.KIVCAM_GetGigEPktLog(usb.h, &plog)), KIVCAM_ERR_NOT_GIGE);
  EXPECT_EQ(l.KIVCAM_GetGigEPktLog(gige.h, &plog), KIVCAM_TRUE);
  // An unplugged camera: 5 where presence counts, not where it does not.
  ASSERT_NO_FATAL_FAILURE(Unplug(usb.h, kUsb1, true));
  EXPECT_EQ(Err(l.KIVCAM_ImageStart(usb.h)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(Err(l.KIVCAM_ImageAlloc(usb.h, &b)), KIVCAM_ERR_NO_CAMERA);
  EXPECT_EQ(l.KIVCAM_ResourceRelease(usb.h), KIVCAM_TRUE);
}

TEST_F(Acquisition, BufferHandlesAreCheckedLikeCameraHandles) {
  Load();
  Cam a = OpenOnDemand(kGigE1), other = OpenOnDemand(kGigE2);
  CamLib& l = *lib_;
  ASSERT_EQ(l.KIVCAM_ResourceAlloc(a.h), KIVCAM_TRUE);
  ASSERT_EQ(l.KIVCAM_ResourceAlloc(other.h), KIVCAM_TRUE);
  ImageBuffer* mine = Alloc(a.h);
  ImageBuffer* theirs = Alloc(other.h);
  ImageBuffer* freed = Alloc(a.h);
  ASSERT_EQ(l.KIVCAM_ImageFree(a.h, freed), KIVCAM_TRUE);
  // A new buffer never gets the freed one's address.
  ImageBuffer* again = Alloc(a.h);
  EXPECT_NE(again, freed);
  ImageBuffer fake;
  std::memcpy(&fake, mine, sizeof fake);  // looks right, is nobody's
  for (ImageBuffer* bad : {freed, &fake, static_cast<ImageBuffer*>(nullptr)}) {
    EXPECT_EQ(Err(l.KIVCAM_ImageReq(a.h, bad)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_ImageComplete(a.h, bad, 0, nullptr)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_ImageFree(a.h, bad)), KIVCAM_ERR_PARAM);
    EXPECT_EQ(Err(l.KIVCAM_ImageConvExec(a.h, bad, &fake)), KIVCAM_ERR_PARAM);
  }
  // Another camera's buffer is a buffer, but not this camera's.
  EXPECT_EQ(Err(l.KIVCAM_ImageReq(a.h, theirs)), KIVCAM_ERR_BUFFER);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(a.h, theirs, 0, nullptr)), KIVCAM_ERR_BUFFER);
  EXPECT_EQ(Err(l.KIVCAM_ImageFree(a.h, theirs)), KIVCAM_ERR_BUFFER);
  // A buffer of a closed camera is gone with it.
  ASSERT_EQ(l.KIVCAM_Close(other.h), KIVCAM_TRUE);
  EXPECT_EQ(Err(l.KIVCAM_ImageFree(a.h, theirs)), KIVCAM_ERR_PARAM);
}

// ---- buffer places --------------------------------------------------------------

TEST_F(Acquisition, BuffersGoThroughTheirPlaces) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  ImageBuffer* b = Started(c);
  EXPECT_EQ(b->Width, 640u);
  EXPECT_EQ(b->Height, 480u);
  EXPECT_EQ(b->PayloadSize, 640u * 480u);
  EXPECT_EQ(b->Status, KIVCAM_BUFFER_STATUS_OK);
  // A VSync token: ends with the frame, comes back, and is handed out again.
  HVSYNC token = nullptr, again = nullptr;
  ASSERT_EQ(l.KIVCAM_VSyncReq(c.h, &token), KIVCAM_TRUE);
  EXPECT_EQ(Err(l.KIVCAM_VSyncComplete(c.h, nullptr, 0)), KIVCAM_ERR_PARAM);
  EXPECT_EQ(Err(l.KIVCAM_VSyncComplete(c.h, token, 0)), KIVCAM_ERR_TIMEOUT);
  RequestOne(c, b);
  EXPECT_EQ(b->Status, KIVCAM_BUFFER_STATUS_REQUESTED);
  EXPECT_EQ(Err(l.KIVCAM_ImageReq(c.h, b)), KIVCAM_ERR_BUFFER_BUSY);  // queued twice
  EXPECT_EQ(Err(l.KIVCAM_ImageFree(c.h, b)), KIVCAM_ERR_BUFFER_BUSY);
  EXPECT_EQ(Err(l.KIVCAM_VSyncComplete(c.h, token, kWait)), kSucceeded);
  EXPECT_EQ(Err(l.KIVCAM_VSyncComplete(c.h, token, 0)), KIVCAM_ERR_PARAM);  // collected
  ASSERT_EQ(l.KIVCAM_VSyncReq(c.h, &again), KIVCAM_TRUE);
  EXPECT_EQ(again, token);
  ASSERT_EQ(l.KIVCAM_ImageComplete(c.h, b, kWait, nullptr), KIVCAM_TRUE);
  EXPECT_EQ(b->Status, KIVCAM_BUFFER_STATUS_OK);
  // Collected but still announced: not free yet, but queued again without a new announcement.
  EXPECT_EQ(Err(l.KIVCAM_ImageFree(c.h, b)), KIVCAM_ERR_BUFFER_BUSY);
  const uint32_t announced = Counters(c).announces;
  ASSERT_EQ(Grab(c, b), kSucceeded);
  EXPECT_EQ(Counters(c).announces, announced);
  // A completion of a buffer not requested (any more).
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), KIVCAM_ERR_PARAM);
  // The abort revokes it: free now.
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_ImageFree(c.h, b), KIVCAM_TRUE);

  // A release revokes every buffer; free-all then frees them.
  ImageBuffer* q = Alloc(c.h);
  RequestOne(c, q);
  ASSERT_EQ(l.KIVCAM_ImageStop(c.h), KIVCAM_TRUE);
  ASSERT_EQ(l.KIVCAM_ResourceRelease(c.h), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_ImageFree(c.h, q), KIVCAM_TRUE);
  ImageBuffer* none = nullptr;
  EXPECT_EQ(Err(l.KIVCAM_ImageAlloc(c.h, &none)), KIVCAM_ERR_NOT_ALLOCATED);

  // A buffer of another geometry is refused once the resources are sized anew.
  ASSERT_EQ(l.KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE);
  ImageBuffer* small = Alloc(c.h);
  ASSERT_EQ(l.KIVCAM_ResourceRelease(c.h), KIVCAM_TRUE);
  SetInt(c.h, "Width", 800);
  ASSERT_EQ(l.KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE);
  EXPECT_EQ(Err(l.KIVCAM_ImageReq(c.h, small)), KIVCAM_ERR_PARAM);
  ImageBuffer* wide = Alloc(c.h);
  EXPECT_EQ(wide->Width, 800u);
  EXPECT_EQ(l.KIVCAM_ImageReq(c.h, wide), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_ResourceRelease(c.h), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_ImageFreeAll(c.h), KIVCAM_TRUE);
  EXPECT_EQ(Err(l.KIVCAM_ImageFree(c.h, wide)), KIVCAM_ERR_PARAM);
}

// A request whose queueing fails leaves the buffer announced, whether it was
// announced by that request or came back from a completion: it is not free,
// and the next request queues it without announcing it again.
TEST_F(Acquisition, AFailedQueueLeavesTheBufferAnnounced) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  ImageBuffer* b = Started(c);
  const uint32_t announced = Counters(c).announces;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_EQ(c.sim->fail_next("DSQueueBuffer", -1001, "Injected queue", 1), 0);
    EXPECT_EQ(Err(l.KIVCAM_ImageReq(c.h, b)), KIVCAM_ERR_OTHER);
    EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), KIVCAM_ERR_PARAM);  // not requested
    EXPECT_EQ(Err(l.KIVCAM_ImageFree(c.h, b)), KIVCAM_ERR_BUFFER_BUSY);
    ASSERT_EQ(Grab(c, b), kSucceeded);
    EXPECT_EQ(Counters(c).announces, announced + 1);  // the first request's only
  }
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  EXPECT_EQ(l.KIVCAM_ImageFree(c.h, b), KIVCAM_TRUE);
}

// The buffer layout each kind sizes from the device: GigE from the packet
// size and the packet header (36 bytes, 48 with extended IDs), USB from the
// streaming registers' alignment and leader and trailer sizes.
TEST_F(Acquisition, BufferGeometryFollowsTheDevice) {
  World(
      "[gige]\ninterfaces = 1\n"
      "[camera]\ntransport = gige\ninterface = 0\nuid = 1\nextended_ids = no\n"
      "[camera]\ntransport = gige\ninterface = 0\nuid = 2\nextended_ids = yes\n"
      "[camera]\ntransport = usb\nuid = 3\nusb_alignment = 0\n"
      "[camera]\ntransport = usb\nuid = 4\nusb_alignment = 9\n");
  Load();
  struct Layout {
    uint32_t info_offset, buffer_size, packets;
  };
  // Payload 1456: one packet of 1464 bytes, or two of 1452.
  auto gige = [&](uint64_t uid) {
    Cam c = OpenOnDemand(uid, false);
    SetInt(c.h, "GevSCPSPacketSize", 1500);
    SetInt(c.h, "Width", 728);
    SetInt(c.h, "Height", 2);
    ImageBuffer* b = Started(c);
    ImageInfo info{};
    EXPECT_EQ(Grab(c, b, &info), kSucceeded);
    kivsim_gige_info block;
    std::memcpy(&block, info.GigE.PacketInfo, sizeof block);
    return Layout{b->InfoOffset, b->BufferSize, block.packet_count};
  };
  Layout standard = gige(1), extended = gige(2);
  EXPECT_EQ(standard.info_offset, 1464u);  // (1456 + 15) / 8 * 8
  EXPECT_EQ(standard.buffer_size, 2032u);  // (1 + 1464 + 577) with the low four bits cleared
  EXPECT_EQ(standard.packets, 1u);
  EXPECT_EQ(extended.packets, 2u);
  // Payload 1,000,000 bytes; leader 52 and trailer 32 bytes.
  auto usb = [&](uint64_t uid) {
    HCAMERA h = OpenUid(uid);
    SetInt(h, "Width", 1000);
    SetInt(h, "Height", 1000);
    EXPECT_EQ(lib_->KIVCAM_ResourceAlloc(h), KIVCAM_TRUE);
    ImageBuffer* b = Alloc(h);
    return Layout{b->InfoOffset, b->BufferSize, 0};
  };
  Layout a128 = usb(3), a512 = usb(4);
  EXPECT_EQ(a128.info_offset, 1000064u);
  EXPECT_EQ(a128.buffer_size, 1000320u);  // trailer at 1,000,192
  EXPECT_EQ(a512.info_offset, 1000448u);
  EXPECT_EQ(a512.buffer_size, 1000448u + 512u + 512u);
}

// ---- completions ----------------------------------------------------------------

// Frames come in the order the buffers were queued, whichever buffer a
// completion asks for: one that sees another buffer's frame first keeps it
// for that buffer's completion and goes on waiting for its own, up to its
// time-out.
TEST_F(Acquisition, ACompletionKeepsTheFramesOfOtherBuffersForThem) {
  Load();
  Cam c = OpenOnDemand(kGigE1);
  CamLib& l = *lib_;
  ImageBuffer* first = Started(c);
  ImageBuffer* second = Alloc(c.h);
  ASSERT_EQ(Err(l.KIVCAM_ImageReq(c.h, first)), kSucceeded);
  ASSERT_EQ(Err(l.KIVCAM_ImageReq(c.h, second)), kSucceeded);

  // Only the first buffer's frame comes: the wait for the second ends with its time-out.
  ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
  ASSERT_TRUE(WaitDelivered(c, 1));
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, second, 50, nullptr)), KIVCAM_ERR_TIMEOUT);
  EXPECT_EQ(second->Status, KIVCAM_BUFFER_STATUS_REQUESTED);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, first, 0, nullptr)), kSucceeded);
  EXPECT_EQ(first->Status, KIVCAM_BUFFER_STATUS_OK);

  // Queued again, the first buffer now comes after the second; asked for first.
  ASSERT_EQ(Err(l.KIVCAM_ImageReq(c.h, first)), kSucceeded);
  ASSERT_EQ(c.sim->deliver(c.index, 2), 0);
  ASSERT_TRUE(WaitDelivered(c, 3));
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, first, kWait, nullptr)), kSucceeded);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, second, 0, nullptr)), kSucceeded);
  // Both went back to announced: queued again without new announcements.
  const uint32_t announced = Counters(c).announces;
  ASSERT_EQ(Err(l.KIVCAM_ImageReq(c.h, first)), kSucceeded);
  ASSERT_EQ(Err(l.KIVCAM_ImageReq(c.h, second)), kSucceeded);
  EXPECT_EQ(Counters(c).announces, announced);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, first, 0, nullptr)), KIVCAM_ERR_TIMEOUT);
}

TEST_F(Acquisition, AnAbortFromAnotherThreadEndsAnEndlessWait) {
  Load();
  Cam c = OpenOnDemand(kGigE2);
  CamLib& l = *lib_;
  ImageBuffer* b = Started(c);
  ASSERT_EQ(l.KIVCAM_ImageReq(c.h, b), KIVCAM_TRUE);
  uint32_t error = 0;
  std::thread waiter([&] { error = Err(l.KIVCAM_ImageComplete(c.h, b, KIVCAM_INFINITE, nullptr)); });
  // Blocked in the producer's wait, without the camera lock the abort takes.
  ASSERT_TRUE(WaitCounters(c, [](const kivsim_counters& k) { return k.waiting == 1; }));
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  waiter.join();
  // Killed in the wait: 99, with the producer's text.
  EXPECT_EQ(error, KIVCAM_ERR_OTHER);
  EXPECT_TRUE(log_->Saw("CCamera::ImageComplete", "Wait aborted"));
  EXPECT_EQ(l.KIVCAM_ImageFree(c.h, b), KIVCAM_TRUE);  // back in place 1
}

// A time-out of zero sees a delivered frame first and hands it over next;
// then the statuses a frame may come with.
TEST_F(Acquisition, ATimeoutOfZeroAndTheStatusesOfDeliveredImages) {
  Load();
  Cam c = OpenOnDemand(kUsb1);
  CamLib& l = *lib_;
  ImageBuffer* b = Started(c);
  EXPECT_EQ(Err(l.KIVCAM_ImageReq(c.h, b)), kSucceeded);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), KIVCAM_ERR_TIMEOUT);  // nothing yet
  ASSERT_EQ(c.sim->deliver(c.index, 1), 0);
  ASSERT_TRUE(WaitDelivered(c, 1));
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), KIVCAM_ERR_TIMEOUT);
  EXPECT_EQ(Err(l.KIVCAM_ImageComplete(c.h, b, 0, nullptr)), kSucceeded);
  EXPECT_EQ(b->Status, KIVCAM_BUFFER_STATUS_OK);
  // Informational: usable, but a request reports it as 14.
  ASSERT_EQ(c.sim->set_delivery_status(c.index, KIVSIM_STATUS_INFO, 0, 0, 1), 0);
  ImageInfo info{};
  EXPECT_EQ(Grab(c, b, &info), KIVCAM_ERR_NO_IMAGE);
  EXPECT_EQ(b->Status, KIVCAM_BUFFER_STATUS_FAILED);
  EXPECT_EQ(info.Transport, KIVCAM_CAMERAKIND_USB);  // filled all the same
  // A transfer failure: one USB stream reset request at the next abort, none after.
  ASSERT_EQ(c.sim->set_delivery_status(c.index, KIVSIM_STATUS_TRANSFER_ERROR, 0, 0, 1), 0);
  EXPECT_EQ(Grab(c, b, &info), KIVCAM_ERR_NO_IMAGE);
  EXPECT_EQ(info.USB.Complete, 0u);  // one byte short
  const uint32_t resets = Counters(c).reset_requests;
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  EXPECT_EQ(Counters(c).reset_requests, resets + 1);
  ASSERT_EQ(l.KIVCAM_ImageReqAbortAll(c.h), KIVCAM_TRUE);
  EXPECT_EQ(Counters(c).reset_requests, resets + 1);
  // A good one again.
  EXPECT_EQ(Grab(c, b, &info), kSucceeded);
  EXPECT_EQ(info.USB.Complete, 1u);
}

TEST_F(Acquisition, TransportRecordsHoldWhatTheProducerWrote) {
  Load();
  Cam g = OpenOnDemand(kGigE1), u = OpenOnDemand(kUsb1);
  for (const Cam* c : {&g, &u}) {
    ImageBuffer* b = Started(*c);
    ImageInfo info;
    std::memset(&info, 0xA5, sizeof info);
    ASSERT_EQ(Grab(*c, b, &info), kSucceeded);
    if (c == &g) {
      EXPECT_EQ(info.Transport, KIVCAM_CAMERAKIND_GIGE);
      EXPECT_EQ(info.GigE.Complete, 1u);
      kivsim_gige_info block;
      std::memcpy(&block, info.GigE.PacketInfo, sizeof block);
      EXPECT_EQ(block.payload_size, b->PayloadSize);
      EXPECT_EQ(block.width, 640u);
      EXPECT_EQ(block.height, 480u);
      EXPECT_EQ(block.pixel_format, b->PixelFormat);
      // The block sits where the library told the producer to put it.
      EXPECT_EQ(std::memcmp(info.GigE.PacketInfo, static_cast<const uint8_t*>(b->Data) + b->InfoOffset, 540), 0);
    } else {
      EXPECT_EQ(info.USB.Transport, KIVCAM_CAMERAKIND_USB);
      EXPECT_EQ(info.USB.Complete, 1u);
      EXPECT_EQ(info.USB.PayloadType, 1u);
      // Packed 64-bit fields: read by value.
      const uint64_t valid = info.USB.ValidPayloadSize, block = info.USB.BlockID;
      EXPECT_EQ(valid, b->PayloadSize);
      EXPECT_EQ(info.USB.PixelFormat, b->PixelFormat);
      EXPECT_EQ(info.USB.SizeX, 640u);
      EXPECT_EQ(info.USB.SizeY, 480u);
      EXPECT_EQ(info.USB.TrailerSizeY, 480u);
      EXPECT_GE(block, 1u);
    }
  }
}

// ---- conversion -------------------------------------------------------------------

// Every format the USB camera offers, grabbed at 64x8: the raw frame is the
// test pattern for its frame number, and the camera's conversion of it is
// what a conversion handle makes of the recomputed pattern.
TEST_F(Acquisition, EveryOfferedFormatIsGrabbedAndConvertedAsRecomputed) {
  Load();
  Cam c = OpenOnDemand(kUsb1);
  KivGenApi::CEnumerationPtr format = Map(c.h)->_GetNode("PixelFormat");
  KivGenApi::NodeList_t entries;
  format->GetEntries(entries);
  ASSERT_GE(entries.size(), 60u);
  HCTBL handle = SmallFramesAndAHandle(c.h);
  size_t checked = 0;
  for (KivGenApi::INode* n : entries) {
    KivGenApi::CEnumEntryPtr e = n;
    if (!KivGenApi::IsAvailable(e)) continue;
    const uint32_t code = static_cast<uint32_t>(e->GetValue());
    SCOPED_TRACE(e->GetSymbolic());
    format->SetIntValue(code);
    ImageBuffer* b = Started(c);
    ImageInfo info{};
    ASSERT_EQ(Grab(c, b, &info), kSucceeded);
    auto pattern = kivsim::GetPattern(code, 64, 8);
    ASSERT_TRUE(pattern);
    const uint64_t block = info.USB.BlockID;  // packed: by value
    const uint8_t* expected = pattern->frame(block - 1);
    ASSERT_EQ(pattern->payload(), b->PayloadSize);
    EXPECT_EQ(std::memcmp(b->Data, expected, b->PayloadSize), 0);
    const uint32_t conv_error = ConvertBoth(c.h, b, handle, expected, code);
    if (conv_error == kSucceeded) ++checked;
    else EXPECT_EQ(conv_error, KIVCAM_ERR_PARAM);  // a format the converters don't know
    ASSERT_NO_FATAL_FAILURE(StopAndFreeAll(c.h));
  }
  EXPECT_GE(checked, 60u);
}

// A camera that reports small legacy numbers for its pixel formats: the
// buffers keep the number, the conversions use the format it stands for.
TEST_F(Acquisition, LegacyPixelFormatNumbersConvertAsTheFormatsTheyStandFor) {
  World("[camera]\ntransport = usb\nuid = 7\npixel_values = legacy\n");
  Load();
  Cam c = OpenOnDemand(7, true);
  KivGenApi::CEnumerationPtr format = Map(c.h)->_GetNode("PixelFormat");
  HCTBL handle = SmallFramesAndAHandle(c.h);
  size_t checked = 0;
  for (const char* name : {"Mono8", "BayerRG8", "Mono12", "YUV422Packed"}) {
    KivGenApi::CEnumEntryPtr e = format->GetEntryByName(name);
    if (!e.IsValid()) continue;
    SCOPED_TRACE(name);
    const uint32_t number = static_cast<uint32_t>(e->GetValue());
    ASSERT_LT(number, 0x1000000u);
    const kivsim::PixelFormatInfo* f = kivsim::FindPixelFormatByLegacy(number);
    ASSERT_NE(f, nullptr);
    format->SetIntValue(number);
    ImageBuffer* b = Started(c);
    EXPECT_EQ(b->PixelFormat, number);
    ASSERT_EQ(Grab(c, b), kSucceeded);
    EXPECT_EQ(ConvertBoth(c.h, b, handle, b->Data, f->code), kSucceeded);
    ++checked;
    ASSERT_NO_FATAL_FAILURE(StopAndFreeAll(c.h));
  }
  EXPECT_GE(checked, 2u);
}

TEST_F(Acquisition, BitmapInformationAndTheAutomaticShift) {
  Load();
  Cam c = OpenOnDemand(kUsb1);
  CamLib& l = *lib_;
  uint32_t size = 0;
  EXPECT_EQ(Err(l.KIVCAM_GetBMPINFO(c.h, nullptr, &size, 0)), KIVCAM_ERR_NOT_ALLOCATED);
  EXPECT_EQ(Err(l.KIVCAM_BufferConvExec(c.h, &size, &size)), KIVCAM_ERR_OTHER);  // no engine yet
  KivGenApi::CEnumerationPtr(Map(c.h)->_GetNode("PixelFormat"))->SetIntValue(0x01100005);  // Mono12
  ASSERT_EQ(l.KIVCAM_ResourceAlloc(c.h), KIVCAM_TRUE);
  ASSERT_EQ(l.KIVCAM_SetBMPINFO(c.h, nullptr, &size, 1), KIVCAM_TRUE);
  EXPECT_EQ(size, 1064u);  // grey form
  size = 0;
  ASSERT_EQ(l.KIVCAM_SetBMPINFO(c.h, nullptr, &size, 0), KIVCAM_TRUE);
  EXPECT_EQ(size, 44u);
  KIVCAM_BITMAPINFO bmi{};
  size = 43;
  EXPECT_EQ(Err(l.KIVCAM_GetBMPINFO(c.h, &bmi, &size, 0)), KIVCAM_ERR_BUFFER_SIZE);
  EXPECT_EQ(size, 43u);
  size = sizeof bmi;
  ASSERT_EQ(l.KIVCAM_GetBMPINFO(c.h, &bmi, &size, 0), KIVCAM_TRUE);
  EXPECT_EQ(bmi.bmiHeader.biWidth, 640);
  EXPECT_EQ(bmi.bmiHeader.biBitCount, 32);  // no engine with 24-bit output
  // The first start makes an engine that shifts 12-bit samples by 4.
  ImageBuffer* b = Alloc(c.h);
  ASSERT_EQ(l.KIVCAM_ImageStart(c.h), KIVCAM_TRUE);
  ASSERT_EQ(Grab(c, b), kSucceeded);
  std::vector<uint8_t> by_camera(640 * 480 * 4), by_buffer(640 * 480 * 4), by_handle(640 * 480 * 4);
  ASSERT_EQ(l.KIVCAM_ImageConvExec(c.h, b, by_camera.data()), KIVCAM_TRUE);
  ASSERT_EQ(l.KIVCAM_BufferConvExec(c.h, b->Data, by_buffer.data()), KIVCAM_TRUE);
  EXPECT_EQ(by_camera, by_buffer);
  KIVCAM_CONVMODE four{0, 4, 0, 0, 0};
  HCTBL handle = nullptr;
  ASSERT_EQ(l.KIVCAM_CreateConvHandle(&handle, &four, nullptr), KIVCAM_TRUE);
  KIVCAM_IMAGEDESC desc{640, 480, b->Data, b->PayloadSize, 0x01100005, 1};
  ASSERT_EQ(l.KIVCAM_ColorConvExec(handle, &desc, by_handle.data()), KIVCAM_TRUE);
  EXPECT_EQ(by_camera, by_handle);
  // A mode out of range, and one for 24-bit output.
  KIVCAM_CONVMODE nine{0, 9, 0, 0, 0}, bgr{0, -1, 1, 0, 0};
  EXPECT_EQ(Err(l.KIVCAM_ConvMode(c.h, &nine, nullptr)), KIVCAM_ERR_PARAM);
  ASSERT_EQ(l.KIVCAM_ConvMode(c.h, &bgr, nullptr), KIVCAM_TRUE);
  size = sizeof bmi;
  ASSERT_EQ(l.KIVCAM_GetBMPINFO(c.h, &bmi, &size, 0), KIVCAM_TRUE);
  EXPECT_EQ(bmi.bmiHeader.biBitCount, 24);
}

}  // namespace
}  // namespace camtest
