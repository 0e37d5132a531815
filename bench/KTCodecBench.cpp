// G.711 and G.726, beside libavcodec. "ours_ns" and "rival_ns" are for one sample.
#include <KTBase/KTCodec.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "KTCompare.h"

namespace {

constexpr int kSampleRate = 8000;
constexpr int kOneSecond = 8000;  // samples; where the rival leaves the number open

void Demand(bool done, const char* what) {
    if (done)
        return;
    std::fprintf(stderr, "libavcodec: %s failed\n", what);
    std::exit(1);
}

/// Two tones that swell and fade, with some noise: the predictor of G.726 has work to do.
std::vector<short> Speech(int samples) {
    std::vector<short> speech(static_cast<std::size_t>(samples));
    unsigned int noise = 1;
    for (int i = 0; i < samples; ++i) {
        noise = noise * 1664525u + 1013904223u;
        const double swell = std::sin(i * 0.003);
        const double tones = std::sin(i * 0.17) + 0.6 * std::sin(i * 0.71);
        speech[static_cast<std::size_t>(i)] =
            static_cast<short>(12000 * swell * tones + static_cast<double>(noise >> 22));
    }
    return speech;
}

/// A codec of libavcodec, one direction, and one second of data through it.
class Rival {
public:
    Rival(AVCodecID id, bool encoder, int bitRate, int codeBits)
        : m_context(avcodec_alloc_context3(encoder ? avcodec_find_encoder(id)
                                                   : avcodec_find_decoder(id))),
          m_frame(av_frame_alloc()),
          m_packet(av_packet_alloc()) {
        Demand(m_context != nullptr && m_frame != nullptr && m_packet != nullptr, "allocation");
        m_context->sample_rate = kSampleRate;
        m_context->sample_fmt = AV_SAMPLE_FMT_S16;
        m_context->bit_rate = bitRate;
        m_context->bits_per_coded_sample = codeBits;
        av_channel_layout_default(&m_context->ch_layout, 1);
        Demand(avcodec_open2(m_context, nullptr, nullptr) == 0, "avcodec_open2");
    }
    Rival(const Rival&) = delete;
    Rival& operator=(const Rival&) = delete;
    ~Rival() {
        av_packet_free(&m_packet);
        av_frame_free(&m_frame);
        avcodec_free_context(&m_context);
    }

    /// Samples of a frame.
    int FrameSize() const {
        return m_context->frame_size != 0 ? m_context->frame_size : kOneSecond;
    }
    void SetSamples(const std::vector<short>& samples) {
        m_frame->nb_samples = static_cast<int>(samples.size());
        m_frame->format = AV_SAMPLE_FMT_S16;
        m_frame->sample_rate = kSampleRate;
        av_channel_layout_default(&m_frame->ch_layout, 1);
        Demand(av_frame_get_buffer(m_frame, 0) == 0, "av_frame_get_buffer");
        std::copy(samples.begin(), samples.end(), reinterpret_cast<short*>(m_frame->data[0]));
    }
    void SetCodes(const std::vector<unsigned char>& codes) {
        Demand(av_new_packet(m_packet, static_cast<int>(codes.size())) == 0, "av_new_packet");
        std::copy(codes.begin(), codes.end(), m_packet->data);
    }
    void Encode() {
        Demand(avcodec_send_frame(m_context, m_frame) == 0 &&
                   avcodec_receive_packet(m_context, m_packet) == 0,
               "encoding");
        av_packet_unref(m_packet);
    }
    void Decode() {
        Demand(avcodec_send_packet(m_context, m_packet) == 0 &&
                   avcodec_receive_frame(m_context, m_frame) == 0,
               "decoding");
        av_frame_unref(m_frame);
    }

private:
    AVCodecContext* m_context;
    AVFrame* m_frame;
    AVPacket* m_packet;
};

void EncodeG711(benchmark::State& state, AVCodecID id,
                int (*encode)(const short*, int, unsigned char*)) {
    Rival rival(id, true, 0, 8);
    const std::vector<short> samples = Speech(rival.FrameSize());
    const int count = rival.FrameSize();
    std::vector<unsigned char> codes(samples.size());
    rival.SetSamples(samples);
    KTCompare(
        state, count,
        [&] {
            encode(samples.data(), count, codes.data());
            benchmark::DoNotOptimize(codes.data());
            benchmark::ClobberMemory();
        },
        [&rival] { rival.Encode(); });
}

void DecodeG711(benchmark::State& state, AVCodecID id,
                int (*decode)(const unsigned char*, int, short*)) {
    Rival rival(id, false, 0, 8);
    const int count = rival.FrameSize();
    std::vector<short> samples(static_cast<std::size_t>(count));
    std::vector<unsigned char> codes(samples.size());
    EncodeAudioPCMA(Speech(count).data(), count, codes.data());  // any bytes will do
    rival.SetCodes(codes);
    KTCompare(
        state, count,
        [&] {
            decode(codes.data(), count, samples.data());
            benchmark::DoNotOptimize(samples.data());
            benchmark::ClobberMemory();
        },
        [&rival] { rival.Decode(); });
}

// The argument is the rate in bit/s.
void EncodeG726(benchmark::State& state) {
    const int rate = static_cast<int>(state.range(0));
    Rival rival(AV_CODEC_ID_ADPCM_G726, true, rate, rate / kSampleRate);
    const std::vector<short> samples = Speech(rival.FrameSize());
    const int count = rival.FrameSize();
    std::vector<unsigned char> codes(samples.size());
    rival.SetSamples(samples);
    tag_KTG726STATE stream;
    InitializeG726(&stream, rate);
    KTCompare(
        state, count,
        [&] {
            benchmark::DoNotOptimize(::EncodeG726(&stream, codes.data(), samples.data(), count));
            benchmark::ClobberMemory();
        },
        [&rival] { rival.Encode(); });
}

void DecodeG726(benchmark::State& state) {
    const int rate = static_cast<int>(state.range(0));
    const int bits = rate / kSampleRate;
    Rival rival(AV_CODEC_ID_ADPCM_G726, false, rate, bits);
    const int count = rival.FrameSize();
    std::vector<short> samples(static_cast<std::size_t>(count) + 8);
    std::vector<unsigned char> codes(samples.size());
    tag_KTG726STATE stream;
    InitializeG726(&stream, rate);
    codes.resize(
        static_cast<std::size_t>(::EncodeG726(&stream, codes.data(), Speech(count).data(), count)));
    InitializeG726(&stream, rate);
    rival.SetCodes(codes);
    KTCompare(
        state, count,
        [&] {
            benchmark::DoNotOptimize(::DecodeG726(&stream, samples.data(), codes.data(),
                                                  static_cast<int>(codes.size())));
            benchmark::ClobberMemory();
        },
        [&rival] { rival.Decode(); });
}

}  // namespace

BENCHMARK_CAPTURE(EncodeG711, A, AV_CODEC_ID_PCM_ALAW, EncodeAudioPCMA)->UseManualTime();
BENCHMARK_CAPTURE(EncodeG711, mu, AV_CODEC_ID_PCM_MULAW, EncodeAudioPCMU)->UseManualTime();
BENCHMARK_CAPTURE(DecodeG711, A, AV_CODEC_ID_PCM_ALAW, DecodeAudioPCMA)->UseManualTime();
BENCHMARK_CAPTURE(DecodeG711, mu, AV_CODEC_ID_PCM_MULAW, DecodeAudioPCMU)->UseManualTime();
BENCHMARK(EncodeG726)->Arg(16000)->Arg(24000)->Arg(32000)->Arg(40000)->UseManualTime();
BENCHMARK(DecodeG726)->Arg(16000)->Arg(24000)->Arg(32000)->Arg(40000)->UseManualTime();
BENCHMARK_MAIN();
