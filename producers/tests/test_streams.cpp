// Data streams: buffer paths, delivery, the test pattern, transport blocks and events.
#include <pugixml.hpp>

#include <cstring>
#include <deque>
#include <functional>
#include <future>

#include "gentl_api.h"

namespace {

// A camera opened and prepared for on-demand delivery on its image stream.
class Acquisition : public ProducerTest {
 protected:
  explicit Acquisition(bool usb = false) : ProducerTest(usb) {}
  void SetUp() override {
    ProducerTest::SetUp();
    ASSERT_EQ(p.kivsim_deliver(cam, 0), 0);  // on demand, nothing pending
    dev = Open(cam);
    port = Port(dev);
    ds = Stream(dev, 0);
    ASSERT_EQ(p.GCRegisterEvent(ds, EVENT_NEW_BUFFER, &ev), GC_ERR_SUCCESS);
    SetGeometry(64, 8, 0x01080001);  // small Mono8 images unless a test sets others
  }
  bool big() const { return !usb_; }
  void SetGeometry(uint32_t w, uint32_t h, uint32_t format) {
    ASSERT_EQ(Write32(port, 0xA000, w, big()), GC_ERR_SUCCESS);
    ASSERT_EQ(Write32(port, 0xA004, h, big()), GC_ERR_SUCCESS);
    ASSERT_EQ(Write32(port, 0xA010, format, big()), GC_ERR_SUCCESS) << std::hex << format;
    payload = Read32(port, 0xA014, big());
  }
  // Announces `n` caller buffers of `size` bytes and queues them.
  void Announce(size_t n, size_t size) {
    for (size_t i = 0; i < n; ++i) {
      memory.emplace_back(size, 0xEE);
      BUFFER_HANDLE b = nullptr;
      ASSERT_EQ(p.DSAnnounceBuffer(ds, memory.back().data(), size, &memory.back(), &b), GC_ERR_SUCCESS);
      ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
      handles.push_back(b);
    }
  }
  void Start() {
    ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
    ASSERT_EQ(Write32(port, 0xA01C, 1, big()), GC_ERR_SUCCESS);  // AcquisitionStart
  }
  EVENT_NEW_BUFFER_DATA Next(uint64_t timeout = 10000) {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    EXPECT_EQ(p.EventGetData(ev, &d, &n, timeout), GC_ERR_SUCCESS) << p.LastError();
    EXPECT_EQ(n, 16u);
    return d;
  }
  // The packet block after the image; returns the block's offset.
  uint32_t StartWithInfoBlock(size_t buffers) {
    const uint32_t info = (payload + 15) / 8 * 8;
    EXPECT_EQ(WriteModule(ds, KIVSIM_DS_GIGE_INFO_OFFSET, info), GC_ERR_SUCCESS);
    Announce(buffers, info + 1024);
    Start();
    return info;
  }
  uint8_t* Data(BUFFER_HANDLE b) { return BufferInfo<uint8_t*>(ds, b, BUFFER_INFO_BASE); }
  // The VSync stream following the image stream, with `tokens` empty buffers
  // queued and running: it delivers one token per frame the camera sends.
  void StartVSync(std::vector<BUFFER_HANDLE>* tokens, size_t count) {
    vs = Stream(dev, 1);
    ASSERT_EQ(p.GCRegisterEvent(vs, EVENT_NEW_BUFFER, &vev), GC_ERR_SUCCESS);
    ASSERT_EQ(WriteModule(vs, KIVSIM_DS_LINK, ReadModule(ds, KIVSIM_DS_LINK)), GC_ERR_SUCCESS);
    for (size_t i = 0; i < count; ++i) {
      BUFFER_HANDLE t;
      ASSERT_EQ(p.DSAnnounceBuffer(vs, reinterpret_cast<void*>(1), 0, nullptr, &t), GC_ERR_SUCCESS)
          << "tokens share an address";
      ASSERT_EQ(p.DSQueueBuffer(vs, t), GC_ERR_SUCCESS);
      tokens->push_back(t);
    }
    ASSERT_EQ(p.DSStartAcquisition(vs, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
  }
  uint64_t Produced() {
    kivsim_counters c{};
    p.kivsim_get_counters(cam, &c);
    return c.frames_produced;
  }
  // The result of looking for a new-buffer event without waiting.
  GC_ERROR Poll() {
    EVENT_NEW_BUFFER_DATA d;
    size_t n = sizeof d;
    return p.EventGetData(ev, &d, &n, 0);
  }
  // A wait on `e` in another thread, for ever unless something ends it.
  std::future<GC_ERROR> WaitElsewhere(EVENT_HANDLE e) {
    return std::async(std::launch::async, [this, e] {
      EVENT_NEW_BUFFER_DATA x;
      size_t m = sizeof x;
      return p.EventGetData(e, &x, &m, GENTL_INFINITE);
    });
  }
  BUFFER_HANDLE NextToken() {
    EVENT_NEW_BUFFER_DATA d{};
    size_t n = sizeof d;
    EXPECT_EQ(p.EventGetData(vev, &d, &n, 10000), GC_ERR_SUCCESS);
    return d.BufferHandle;
  }

  uint32_t cam = 0;
  bool usb_ = false;
  DEV_HANDLE dev = nullptr;
  PORT_HANDLE port = nullptr;
  DS_HANDLE ds = nullptr;
  EVENT_HANDLE ev = nullptr;
  DS_HANDLE vs = nullptr;
  EVENT_HANDLE vev = nullptr;
  uint32_t payload = 0;
  std::deque<std::vector<uint8_t>> memory;
  std::vector<BUFFER_HANDLE> handles;
};

class UsbAcquisition : public Acquisition {
 protected:
  UsbAcquisition() : Acquisition(true) { usb_ = true; }
};

TEST_F(Acquisition, OnDemandFramesCarryThePatternAndPacketBlock) {
  const uint32_t info = StartWithInfoBlock(2);
  ASSERT_EQ(p.kivsim_deliver(cam, 2), 0);
  for (uint64_t frame = 0; frame < 2; ++frame) {
    EVENT_NEW_BUFFER_DATA e = Next();
    ASSERT_EQ(e.BufferHandle, handles[frame]) << "delivered in queue order";
    EXPECT_EQ(e.pUserPointer, &memory[frame]) << "caller memory: the private pointer";
    const uint8_t* img = memory[frame].data();
    for (uint32_t y = 0; y < 8; ++y)
      for (uint32_t x = 0; x < 64; ++x) ASSERT_EQ(img[y * 64 + x], Pattern8(x, y, frame, 0)) << x << "," << y;
    EXPECT_EQ(img[payload], 0xEE) << "nothing written between image and block";
    EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1000), 0u);
    EXPECT_EQ(BufferInfo<size_t>(ds, e.BufferHandle, BUFFER_INFO_SIZE_FILLED), payload);
    EXPECT_EQ(BufferInfo<uint64_t>(ds, e.BufferHandle, BUFFER_INFO_FRAMEID), frame + 1);
    kivsim_gige_info block;
    std::memcpy(&block, img + info, sizeof block);
    EXPECT_EQ(block.packet_count, BufferInfo<uint32_t>(ds, e.BufferHandle, 1001));
    EXPECT_EQ(block.width, 64u);
    uint32_t missing;
    std::memcpy(&missing, img + info + 540, 4);
    EXPECT_EQ(missing, 0u) << "complete";
  }
  const kivsim_packet_log log = PacketLog(ds);
  EXPECT_EQ(log.frames, 2u);
  EXPECT_EQ(log.last_block_id, 2u);
}

TEST_F(Acquisition, NoFramesBeforeAcquisitionStartAndAfterStop) {
  Announce(1, payload);
  ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  EXPECT_EQ(Produced(), 0u) << "the camera waits for AcquisitionStart";
  ASSERT_EQ(Write32(port, 0xA01C, 1, true), GC_ERR_SUCCESS);
  Next();
  ASSERT_EQ(Write32(port, 0xA020, 1, true), GC_ERR_SUCCESS);  // AcquisitionStop
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  EXPECT_EQ(Produced(), 1u);
}

TEST_F(Acquisition, SoftwareTriggerMakesOneFrameEach) {
  ASSERT_EQ(Write32(port, 0xA030, 1, true), GC_ERR_SUCCESS);  // TriggerMode On
  ASSERT_EQ(p.kivsim_free_run(cam, 1000), 0);                // trigger mode overrides free-run
  Announce(2, payload);
  Start();
  EXPECT_EQ(Produced(), 0u);
  ASSERT_EQ(Write32(port, 0xA034, 1, true), GC_ERR_SUCCESS);  // TriggerSoftware
  Next();
  EXPECT_EQ(Produced(), 1u);
}

TEST_F(Acquisition, AcquisitionStopsAfterTheRequestedCountWhileVSyncSeesEveryFrame) {
  // The VSync stream sees every frame in the same pass as the image stream, so
  // its token tells when a frame has been handled.
  std::vector<BUFFER_HANDLE> tokens;
  ASSERT_NO_FATAL_FAILURE(StartVSync(&tokens, 2));
  Announce(2, payload);
  ASSERT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, 1), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_RUNNING, 1), GC_ERR_SUCCESS);
  ASSERT_EQ(Write32(port, 0xA01C, 1, true), GC_ERR_SUCCESS);
  ASSERT_EQ(p.kivsim_deliver(cam, 2), 0);
  for (BUFFER_HANDLE t : tokens) {  // one empty token per frame the camera sent
    EXPECT_EQ(NextToken(), t);
    EXPECT_EQ(BufferInfo<size_t>(vs, t, BUFFER_INFO_SIZE_FILLED), 0u);
  }
  EVENT_NEW_BUFFER_DATA first = Next(0);
  EXPECT_EQ(BufferInfo<uint64_t>(ds, first.BufferHandle, BUFFER_INFO_FRAMEID), 1u);
  EXPECT_EQ(Poll(), GC_ERR_TIMEOUT) << "the second frame is beyond the count";
  EXPECT_EQ(InfoOf<uint64_t>(p.DSGetInfo, ds, STREAM_INFO_NUM_DELIVERED), 1u);
}

TEST_F(Acquisition, ProducerAllocatedBuffersReportTheirAddress) {
  BUFFER_HANDLE b = nullptr;
  ASSERT_EQ(p.DSAnnounceBuffer(ds, nullptr, payload, nullptr, &b), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSQueueBuffer(ds, b), GC_ERR_SUCCESS);
  Start();
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  EVENT_NEW_BUFFER_DATA e = Next();
  EXPECT_EQ(e.BufferHandle, b);
  uint8_t* base = Data(b);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(e.pUserPointer, base) << "the second word carries the data address";
  EXPECT_EQ(base[9], Pattern8(9, 0, 0, 0));
  void* mem = reinterpret_cast<void*>(1);
  void* priv = reinterpret_cast<void*>(1);
  ASSERT_EQ(p.DSRevokeBuffer(ds, b, &mem, &priv), GC_ERR_SUCCESS);
  EXPECT_EQ(mem, nullptr) << "producer memory is not handed back";
  EXPECT_EQ(priv, nullptr);
}

TEST_F(Acquisition, QueueAndRevokeRules) {
  Announce(1, payload);
  BUFFER_HANDLE other;
  EXPECT_EQ(p.DSAnnounceBuffer(ds, memory[0].data(), payload, nullptr, &other), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(p.DSQueueBuffer(ds, handles[0]), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(p.DSRevokeBuffer(ds, handles[0], nullptr, nullptr), GC_ERR_BUSY);
  EXPECT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_RESOURCE_IN_USE);
  EXPECT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, 0), GC_ERR_INVALID_PARAMETER);
  // Flushing the input pool delivers the buffer without new data.
  ASSERT_EQ(p.DSFlushQueue(ds, ACQ_QUEUE_INPUT_TO_OUTPUT), GC_ERR_SUCCESS);
  EVENT_NEW_BUFFER_DATA e = Next(0);
  EXPECT_EQ(e.BufferHandle, handles[0]);
  EXPECT_FALSE(BufferInfo<bool8_t>(ds, handles[0], BUFFER_INFO_NEW_DATA));
  ASSERT_EQ(p.DSQueueBuffer(ds, handles[0]), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSFlushQueue(ds, ACQ_QUEUE_INPUT_TO_OUTPUT), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSFlushQueue(ds, ACQ_QUEUE_OUTPUT_DISCARD), GC_ERR_SUCCESS);
  EXPECT_EQ(Poll(), GC_ERR_TIMEOUT) << "discarded output leaves no event";
  void* mem = nullptr;
  ASSERT_EQ(p.DSRevokeBuffer(ds, handles[0], &mem, nullptr), GC_ERR_SUCCESS);
  EXPECT_EQ(mem, memory[0].data());
  // With no buffer at all the engine starts; buffers may come later.
  EXPECT_EQ(p.DSStartAcquisition(ds, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL), GC_ERR_SUCCESS);
  kivsim_counters c{};
  p.kivsim_get_counters(cam, &c);
  EXPECT_EQ(c.announces, 1u);
  EXPECT_EQ(c.revokes, 1u);
  EXPECT_EQ(c.queues, 2u);
}

TEST_F(Acquisition, KillAbortsOneWaitAndIsRemembered) {
  ASSERT_EQ(p.EventKill(ev), GC_ERR_SUCCESS);
  EVENT_NEW_BUFFER_DATA d;
  size_t n = sizeof d;
  EXPECT_EQ(p.EventGetData(ev, &d, &n, GENTL_INFINITE), GC_ERR_ABORT);
  EXPECT_FALSE(p.LastError().empty());
  EXPECT_EQ(Poll(), GC_ERR_TIMEOUT) << "one kill releases one wait";
  auto waited = WaitElsewhere(ev);
  ASSERT_EQ(p.EventKill(ev), GC_ERR_SUCCESS);
  EXPECT_EQ(waited.get(), GC_ERR_ABORT);
  n = 8;
  EXPECT_EQ(p.EventGetData(ev, &d, &n, 0), GC_ERR_BUFFER_TOO_SMALL);
}

TEST_F(Acquisition, UnregisteringReleasesWaitersAndDeliveredBuffers) {
  Announce(2, payload);
  Start();
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  size_t n = sizeof(EVENT_NEW_BUFFER_DATA);
  ASSERT_EQ(p.EventGetData(ev, nullptr, &n, 10000), GC_ERR_SUCCESS) << "a NULL buffer discards the entry";
  EXPECT_FALSE(BufferInfo<bool8_t>(ds, handles[0], BUFFER_INFO_IS_QUEUED));
  ASSERT_EQ(p.DSFlushQueue(ds, ACQ_QUEUE_INPUT_TO_OUTPUT), GC_ERR_SUCCESS);
  EXPECT_TRUE(BufferInfo<bool8_t>(ds, handles[1], BUFFER_INFO_IS_QUEUED));
  vs = Stream(dev, 1);
  ASSERT_EQ(p.GCRegisterEvent(vs, EVENT_NEW_BUFFER, &vev), GC_ERR_SUCCESS);
  auto waiter = WaitElsewhere(vev);
  ASSERT_EQ(p.GCUnregisterEvent(vs, EVENT_NEW_BUFFER), GC_ERR_SUCCESS);
  // The waiter was either inside the wait or came after the event was gone.
  const GC_ERROR waited = waiter.get();
  EXPECT_TRUE(waited == GC_ERR_ABORT || waited == GC_ERR_INVALID_HANDLE) << waited;
  ASSERT_EQ(p.GCUnregisterEvent(ds, EVENT_NEW_BUFFER), GC_ERR_SUCCESS);
  EXPECT_FALSE(BufferInfo<bool8_t>(ds, handles[1], BUFFER_INFO_IS_QUEUED)) << "delivered buffers become free";
  EXPECT_EQ(p.DSRevokeBuffer(ds, handles[1], nullptr, nullptr), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSStopAcquisition(ds, ACQ_STOP_FLAGS_KILL), GC_ERR_SUCCESS);
  EXPECT_EQ(p.DSRevokeBuffer(ds, handles[0], nullptr, nullptr), GC_ERR_SUCCESS);
}

TEST_F(Acquisition, DeliveryStatusesAndTooSmallBuffers) {
  const uint32_t info = StartWithInfoBlock(3);
  ASSERT_EQ(p.kivsim_set_delivery_status(cam, KIVSIM_STATUS_INFO, 0, 0, 1), 0);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  EVENT_NEW_BUFFER_DATA e = Next();
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1000), KIVSIM_STATUS_INFO);
  EXPECT_FALSE(BufferInfo<bool8_t>(ds, e.BufferHandle, BUFFER_INFO_IS_INCOMPLETE));
  ASSERT_EQ(p.kivsim_set_delivery_status(cam, KIVSIM_STATUS_TRANSFER_ERROR, 77, 1, 1), 0);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  e = Next();
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1000), KIVSIM_STATUS_TRANSFER_ERROR);
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1001), 77u);
  EXPECT_TRUE(BufferInfo<bool8_t>(ds, e.BufferHandle, BUFFER_INFO_IS_INCOMPLETE));
  uint32_t missing;
  std::memcpy(&missing, Data(e.BufferHandle) + info + 540, 4);
  EXPECT_NE(missing, 0u);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  e = Next();
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1000), 0u) << "the override applied once";
  // A buffer smaller than the image.
  BUFFER_HANDLE small;
  std::vector<uint8_t> mem(payload / 2);
  ASSERT_EQ(p.DSAnnounceBuffer(ds, mem.data(), mem.size(), nullptr, &small), GC_ERR_SUCCESS);
  ASSERT_EQ(p.DSQueueBuffer(ds, small), GC_ERR_SUCCESS);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  e = Next();
  ASSERT_EQ(e.BufferHandle, small);
  EXPECT_EQ(BufferInfo<uint32_t>(ds, small, 1000), KIVSIM_STATUS_BUFFER_TOO_SMALL);
  EXPECT_TRUE(BufferInfo<bool8_t>(ds, small, BUFFER_INFO_DATA_LARGER_THAN_BUFFER));
  EXPECT_EQ(BufferInfo<size_t>(ds, small, BUFFER_INFO_SIZE_FILLED), mem.size());
}

TEST_F(Acquisition, FreeRunDeliversWithoutControlCallsAtARateOrAsFastAsBuffersReturn) {
  Announce(4, payload);
  ASSERT_EQ(p.kivsim_free_run(cam, 2000), 0);
  // The rate is the camera's AcquisitionFrameRate, in millihertz.
  EXPECT_EQ(Read32(port, 0xA068, true), 2000000u);
  Start();
  uint64_t last = 0;
  for (int i = 0; i < 50; ++i) {
    if (i == 6) {
      ASSERT_EQ(p.kivsim_free_run(cam, 0), 0);  // now as fast as buffers come back
    }
    EVENT_NEW_BUFFER_DATA e = Next();
    uint64_t id = BufferInfo<uint64_t>(ds, e.BufferHandle, BUFFER_INFO_FRAMEID);
    EXPECT_GT(id, last);
    last = id;
    ASSERT_EQ(p.DSQueueBuffer(ds, e.BufferHandle), GC_ERR_SUCCESS);
  }
}

// Each format's payload follows its layout, and a delivered frame matches the recomputed pattern.
TEST_F(UsbAcquisition, EveryOfferedPixelFormatIsDeliveredAtItsSize) {
  // Every format the description offers, read from the camera itself.
  std::string url, xml = UrlFile(port, 1, &url);
  ASSERT_NE(url.find(".xml;"), std::string::npos) << "URL 1 of the USB camera is the plain file";
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(xml.c_str()));
  std::vector<uint32_t> codes;
  for (pugi::xml_node e : doc.child("RegisterDescription")
                              .find_child_by_attribute("Enumeration", "Name", "PixelFormat")
                              .children("EnumEntry"))
    codes.push_back(static_cast<uint32_t>(std::strtoul(e.child_value("Value"), nullptr, 0)));
  ASSERT_GE(codes.size(), 70u);
  const uint32_t w = 64, h = 4;
  Announce(1, 1 << 16);
  Start();
  for (uint32_t code : codes) {
    SetGeometry(w, h, code);
    // The size field of the code gives the bits per pixel, except for the two
    // 32-bit RGBA layouts that answer to codes with a 24-bit size field.
    uint32_t bits = (code == 0x02180016 || code == 0x02180017) ? 32 : (code >> 16) & 0xFF;
    EXPECT_EQ(payload, w * h * bits / 8) << std::hex << code;
    ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
    EVENT_NEW_BUFFER_DATA e = Next();
    EXPECT_EQ(BufferInfo<size_t>(ds, e.BufferHandle, BUFFER_INFO_SIZE_FILLED), payload) << std::hex << code;
    EXPECT_EQ(BufferInfo<uint64_t>(ds, e.BufferHandle, BUFFER_INFO_PIXELFORMAT), code);
    ASSERT_EQ(p.DSQueueBuffer(ds, e.BufferHandle), GC_ERR_SUCCESS);
  }
}

TEST_F(UsbAcquisition, SixteenBitColourAndPackedLayouts) {
  struct Case { uint32_t code; std::function<void(const uint8_t*, uint64_t)> check; };
  const uint32_t w = 16, h = 2;
  std::vector<Case> cases = {
      {0x01100005, [](const uint8_t* p, uint64_t f) {  // Mono12 in 16-bit words; first, so frame 0
         for (uint32_t x : {0u, 5u, 15u}) {
           const uint32_t word = p[2 * x] | p[2 * x + 1] << 8;
           EXPECT_EQ(word >> 4, Pattern8(x, 0, f, 0));
           EXPECT_EQ(word & 0xF, x & 0xF) << "low bits: x XOR row phase";
         }
       }},
      {0x02180014, [](const uint8_t* p, uint64_t f) {  // RGB8
         EXPECT_EQ(p[3 * 5 + 0], Pattern8(5, 0, f, 0));
         EXPECT_EQ(p[3 * 5 + 2], Pattern8(5, 0, f, 2));
       }},
      {0x02100032, [](const uint8_t* p, uint64_t f) {  // YUV422_8: Y0 U Y1 V
         EXPECT_EQ(p[4], Pattern8(2, 0, f, 0));
         EXPECT_EQ(p[5], Pattern8(2, 0, f, 1));
         EXPECT_EQ(p[6], Pattern8(3, 0, f, 0));
         EXPECT_EQ(p[7], Pattern8(2, 0, f, 2));
       }},
      {0x010C0006, [](const uint8_t* p, uint64_t f) {  // Mono12Packed
         EXPECT_EQ(p[3], Pattern8(2, 0, f, 0));
         EXPECT_EQ(p[5], Pattern8(3, 0, f, 0));
       }},
      {0x01080009, [w](const uint8_t* p, uint64_t f) {  // BayerRG8: R G / G B
         EXPECT_EQ(p[0], Pattern8(0, 0, f, 0));
         EXPECT_EQ(p[1], Pattern8(1, 0, f, 1));
         EXPECT_EQ(p[w + 1], Pattern8(1, 1, f, 2));
       }},
      {0x0220001D, [](const uint8_t* p, uint64_t f) {  // RGB10p32
         uint32_t d;
         std::memcpy(&d, p + 4, 4);
         EXPECT_EQ((d >> 22) & 0xFF, Pattern8(1, 0, f, 0));
         EXPECT_EQ((d >> 2) & 0xFF, Pattern8(1, 0, f, 2));
       }},
  };
  Announce(1, 1 << 16);
  Start();
  uint64_t frame = 0;
  for (auto& c : cases) {
    ASSERT_EQ(Write32(port, 0xA018, 0, false), GC_ERR_SUCCESS);
    SetGeometry(w, h, c.code);
    ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
    EVENT_NEW_BUFFER_DATA e = Next();
    SCOPED_TRACE(c.code);
    c.check(Data(e.BufferHandle), frame++);
    ASSERT_EQ(p.DSQueueBuffer(ds, e.BufferHandle), GC_ERR_SUCCESS);
  }
}

TEST_F(UsbAcquisition, LeaderAndTrailerAtTheConfiguredOffsets) {
  const uint32_t leader = (payload + 127) / 128 * 128, trailer = leader + 128, size = trailer + 128;
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_USB_LEADER_OFFSET, leader), GC_ERR_SUCCESS);
  ASSERT_EQ(WriteModule(ds, KIVSIM_DS_USB_TRAILER_OFFSET, trailer), GC_ERR_SUCCESS);
  Announce(2, size);
  Start();
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  EVENT_NEW_BUFFER_DATA e = Next();
  const uint8_t* b = Data(e.BufferHandle);
  auto u32 = [&](size_t o) { uint32_t v; std::memcpy(&v, b + o, 4); return v; };
  auto u64 = [&](size_t o) { uint64_t v; std::memcpy(&v, b + o, 8); return v; };
  EXPECT_EQ(u32(leader), 0x4C563355u);
  EXPECT_EQ(b[leader + 18], 1) << "image payload";
  EXPECT_EQ(u32(leader + 28), 0x01080001u);
  EXPECT_EQ(u32(leader + 32), 64u);
  EXPECT_EQ(u32(leader + 36), 8u);
  EXPECT_EQ(u32(trailer), 0x54563355u);
  EXPECT_EQ(u64(trailer + 8), u64(leader + 8)) << "same block ID";
  EXPECT_EQ(u64(trailer + 20), payload);
  EXPECT_EQ(u32(trailer + 28), 8u);
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1001), payload) << "received bytes";
  ASSERT_EQ(p.kivsim_set_delivery_status(cam, KIVSIM_STATUS_TRANSFER_ERROR, 0, 0, 1), 0);
  ASSERT_EQ(p.kivsim_deliver(cam, 1), 0);
  e = Next();
  EXPECT_EQ(BufferInfo<uint32_t>(ds, e.BufferHandle, 1001), payload - 1) << "a short transfer";
  const uint8_t* t2 = Data(e.BufferHandle) + trailer;
  EXPECT_EQ(t2[16] | t2[17] << 8, 0xA100) << "trailer status: data discarded";
}

}  // namespace
