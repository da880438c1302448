// GStreamer's Ogg muxer per member, on the calling thread: what a pipeline of GStreamer costs at the least. Pads of its
// own stand for the elements around the muxer, so that there are no streaming threads and no queues. The muxer comes to
// rest after an utterance and is set playing again for the next one.
#include <gst/gst.h>

#include <span>
#include <stdexcept>

#include "opus_headers.h"
#include "pipeline.h"

namespace bench {
namespace {

constexpr GstClockTime kFrame = 40 * GST_MSECOND;
constexpr GstClockTime kPage = 2 * GST_SECOND;  // by size, libogg's 4 KB; the muxer's own default is half a second

void require(bool condition) {
  if (!condition) throw std::runtime_error("GStreamer");
}

GstBuffer* header_buffer(std::span<const std::uint8_t> bytes) {
  GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
  GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_HEADER);
  return buffer;
}

// Opus with its two header packets, which the muxer writes in front of every stream.
GstCaps* make_caps() {
  GstCaps* caps = gst_caps_new_simple("audio/x-opus", "rate", G_TYPE_INT, 16000, "channels", G_TYPE_INT, 1,
                                      "channel-mapping-family", G_TYPE_INT, 0, nullptr);
  GValue headers = G_VALUE_INIT;
  g_value_init(&headers, GST_TYPE_ARRAY);
  for (GstBuffer* buffer : {header_buffer(kOpusHead), header_buffer(kOpusTags)}) {
    GValue value = G_VALUE_INIT;
    g_value_init(&value, GST_TYPE_BUFFER);
    gst_value_take_buffer(&value, buffer);
    gst_value_array_append_and_take_value(&headers, &value);
  }
  gst_structure_take_value(gst_caps_get_structure(caps, 0), "streamheader", &headers);
  return caps;
}

GstCaps* shared_caps() {
  static GstCaps* const caps = make_caps();
  return caps;
}

class GstreamerMember final : public PipelineMember {
 public:
  GstreamerMember() {
    static const bool initialized = gst_init_check(nullptr, nullptr, nullptr) != 0;
    require(initialized);
    muxer_ = gst_element_factory_make("oggmux", nullptr);
    if (muxer_ == nullptr) throw std::runtime_error("GStreamer's oggmux is not installed");
    gst_object_ref_sink(muxer_);
    g_object_set(muxer_, "max-page-delay", kPage, "max-delay", kPage, nullptr);
    muxer_input_ = gst_element_request_pad_simple(muxer_, "audio_%u");
    GstPad* muxer_output = gst_element_get_static_pad(muxer_, "src");
    source_ = gst_pad_new("source", GST_PAD_SRC);
    sink_ = gst_pad_new("sink", GST_PAD_SINK);
    gst_pad_set_element_private(sink_, this);
    gst_pad_set_chain_function(sink_, take);
    require(gst_pad_link(source_, muxer_input_) == GST_PAD_LINK_OK &&
            gst_pad_link(muxer_output, sink_) == GST_PAD_LINK_OK);
    gst_object_unref(muxer_output);
    begin_stream();
  }
  ~GstreamerMember() override {
    gst_element_set_state(muxer_, GST_STATE_NULL);
    gst_pad_set_active(source_, FALSE);
    gst_pad_set_active(sink_, FALSE);
    gst_element_release_request_pad(muxer_, muxer_input_);
    gst_object_unref(muxer_input_);
    gst_object_unref(source_);
    gst_object_unref(sink_);
    gst_object_unref(muxer_);
  }

  void begin_round() override {
    if (frames_ > 0) {
      end_stream();
      begin_stream();
    }
    fill_ = 0;
    silent_frames_ = 0;
    streams_[0].clear();
  }

  void put_frame(const SttAudioFrame& frame) override {
    if (frame.data == nullptr) {
      if (++silent_frames_ == kPause && frames_ > 0) end_utterance();
      return;
    }
    GstBuffer* buffer = gst_buffer_new_memdup(frame.data, frame.size);
    GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = frames_++ * kFrame;
    GST_BUFFER_DURATION(buffer) = kFrame;
    require(gst_pad_push(source_, buffer) == GST_FLOW_OK);
    silent_frames_ = 0;
  }

  std::vector<Stream> streams() override { return {streams_.begin(), streams_.begin() + fill_}; }

 private:
  static GstFlowReturn take(GstPad* pad, GstObject*, GstBuffer* buffer) {
    auto* self = static_cast<GstreamerMember*>(gst_pad_get_element_private(pad));
    GstMapInfo map;
    const bool mapped = gst_buffer_map(buffer, &map, GST_MAP_READ) != 0;
    if (mapped) {
      Stream& stream = self->streams_[static_cast<std::size_t>(self->fill_)];
      stream.insert(stream.end(), map.data, map.data + map.size);
      gst_buffer_unmap(buffer, &map);
    }
    gst_buffer_unref(buffer);
    return mapped ? GST_FLOW_OK : GST_FLOW_ERROR;
  }

  void begin_stream() {
    frames_ = 0;
    gst_pad_set_active(sink_, TRUE);
    gst_pad_set_active(source_, TRUE);
    require(gst_element_set_state(muxer_, GST_STATE_PLAYING) == GST_STATE_CHANGE_SUCCESS);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    require(gst_pad_push_event(source_, gst_event_new_stream_start("member")) != 0 &&
            gst_pad_push_event(source_, gst_event_new_caps(shared_caps())) != 0 &&
            gst_pad_push_event(source_, gst_event_new_segment(&segment)) != 0);
  }

  // The muxer writes what it holds and is ready for another stream.
  void end_stream() {
    gst_pad_push_event(source_, gst_event_new_eos());
    gst_element_set_state(muxer_, GST_STATE_READY);
    // Pads forget with this that their stream has ended.
    gst_pad_set_active(source_, FALSE);
    gst_pad_set_active(sink_, FALSE);
  }

  void end_utterance() {
    end_stream();
    streams_[static_cast<std::size_t>(++fill_)].clear();
    begin_stream();
  }

  GstElement* muxer_;
  GstPad* muxer_input_;
  GstPad* source_;
  GstPad* sink_;
  std::uint64_t frames_ = 0;
  std::size_t silent_frames_ = 0;
  std::vector<Stream> streams_ = std::vector<Stream>(kUtterances + 1);  // the last one is being written
  std::ptrdiff_t fill_ = 0;
};

}  // namespace

std::unique_ptr<PipelineMember> make_gstreamer_member() {
  return std::make_unique<GstreamerMember>();
}

}  // namespace bench
