// A GStreamer pipeline per member: appsrc ! oggmux ! appsink, its streaming thread included. It comes to rest between
// utterances and is set playing again for the next one.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <stdexcept>

#include "pipeline.h"

namespace rooms {
namespace {

constexpr GstClockTime kFrame = 40 * GST_MSECOND;

void Require(bool condition) {
  if (!condition) throw std::runtime_error("GStreamer");
}

GstBuffer* BufferOf(const std::vector<std::uint8_t>& bytes) {
  GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
  GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_HEADER);
  return buffer;
}

// Opus with its two header packets, which the muxer writes in front of every stream.
GstCaps* MakeCaps() {
  GstCaps* caps = gst_caps_new_simple("audio/x-opus", "rate", G_TYPE_INT, 16000, "channels", G_TYPE_INT, 1,
                                      "channel-mapping-family", G_TYPE_INT, 0, nullptr);
  GValue headers = G_VALUE_INIT;
  g_value_init(&headers, GST_TYPE_ARRAY);
  for (GstBuffer* buffer : {BufferOf(IdentificationPacket()), BufferOf(CommentPacket())}) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_BUFFER);
    gst_value_take_buffer(&value, buffer);
    gst_value_array_append_and_take_value(&headers, &value);
  }
  gst_structure_take_value(gst_caps_get_structure(caps, 0), "streamheader", &headers);
  return caps;
}

class GstreamerMember final : public PipelineMember {
 public:
  GstreamerMember() {
    static const bool initialized = gst_init_check(nullptr, nullptr, nullptr) != 0;
    Require(initialized);
    pipeline_ = gst_pipeline_new(nullptr);
    source_ = gst_element_factory_make("appsrc", nullptr);
    GstElement* muxer = gst_element_factory_make("oggmux", nullptr);
    sink_ = gst_element_factory_make("appsink", nullptr);
    Require(source_ != nullptr && muxer != nullptr && sink_ != nullptr);
    GstCaps* caps = MakeCaps();
    g_object_set(source_, "caps", caps, "format", GST_FORMAT_TIME, "block", FALSE, nullptr);
    gst_caps_unref(caps);
    g_object_set(sink_, "sync", FALSE, "async", FALSE, nullptr);
    gst_bin_add_many(GST_BIN(pipeline_), source_, muxer, sink_, nullptr);
    Require(gst_element_link_pads(source_, "src", muxer, "audio_%u") != 0 && gst_element_link(muxer, sink_) != 0);
    Play();
    // Nobody reads the messages.
    GstBus* bus = gst_element_get_bus(pipeline_);
    gst_bus_set_flushing(bus, TRUE);
    gst_object_unref(bus);
  }
  ~GstreamerMember() override {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
  }

  void BeginRound() override {
    fill_ = 0;
    silent_frames_ = 0;
    if (frames_ > 0) BeginStream();
  }

  void PutFrame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause) EndUtterance();
      return;
    }
    GstBuffer* buffer = gst_buffer_new_memdup(frame.data, frame.size);
    GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = frames_ * kFrame;
    GST_BUFFER_DURATION(buffer) = kFrame;
    ++frames_;
    Require(gst_app_src_push_buffer(GST_APP_SRC(source_), buffer) == GST_FLOW_OK);
    silent_frames_ = 0;
  }

  std::vector<std::string> Streams() override { return {streams_.begin(), streams_.begin() + fill_}; }

 private:
  void Play() {
    gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    Require(gst_element_get_state(pipeline_, nullptr, nullptr, GST_SECOND) != GST_STATE_CHANGE_FAILURE);
  }

  void BeginStream() {
    gst_element_set_state(pipeline_, GST_STATE_READY);
    Play();
    frames_ = 0;
  }

  void EndUtterance() {
    std::string& stream = streams_[static_cast<std::size_t>(fill_++)];
    stream.clear();
    gst_app_src_end_of_stream(GST_APP_SRC(source_));
    while (GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(sink_))) {
      GstMapInfo map;
      GstBuffer* buffer = gst_sample_get_buffer(sample);
      Require(gst_buffer_map(buffer, &map, GST_MAP_READ) != 0);
      stream.append(reinterpret_cast<const char*>(map.data), map.size);
      gst_buffer_unmap(buffer, &map);
      gst_sample_unref(sample);
    }
    BeginStream();
  }

  GstElement* pipeline_;
  GstElement* source_;
  GstElement* sink_;
  std::uint64_t frames_ = 0;
  std::size_t silent_frames_ = 0;
  std::vector<std::string> streams_ = std::vector<std::string>(kUtterances);
  std::ptrdiff_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> MakeGstreamerMember() {
  return std::make_unique<GstreamerMember>();
}

}  // namespace rooms
