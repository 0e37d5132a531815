// G.726. Each function below is one block, or a few neighbouring ones, of the recommendation's
// description, and the variables carry its names.

#include "KTBase/KTCodec.h"

namespace {

/// What the four rates differ in. The tables are indexed by the magnitude of a code.
struct Rate {
    int bits;
    int levels;         // magnitudes
    int leak;           // of the zero predictor, a shift
    bool zeroCode;      // code 0 is in use; else a small positive difference shares the highest
    short limit[15];    // QUAN: upper ends of all magnitudes but the last
    short restore[16];  // RECONST
    short weight[16];   // FUNCTW
    short speed[16];    // FUNCTF
};

constexpr Rate kRate16 = {2, 2, 8, true, {261}, {116, 365}, {-22, 439}, {0, 7}};
constexpr Rate kRate24 = {
    3, 4, 8, false, {8, 218, 331}, {-2048, 135, 273, 373}, {-4, 30, 137, 582}, {0, 1, 2, 7}};
constexpr Rate kRate32 = {4,
                          8,
                          8,
                          false,
                          {-124, 80, 178, 246, 300, 349, 400},
                          {-2048, 4, 135, 213, 273, 323, 373, 425},
                          {-12, 18, 41, 64, 112, 198, 355, 1122},
                          {0, 0, 0, 1, 1, 1, 3, 7}};
constexpr Rate kRate40 = {
    5,
    16,
    9,
    false,
    {-122, -16, 68, 139, 198, 250, 298, 339, 378, 413, 445, 475, 502, 528, 553},
    {-2048, -66, 28, 104, 169, 224, 274, 318, 358, 395, 429, 459, 488, 514, 539, 566},
    {14, 14, 24, 39, 40, 41, 58, 100, 141, 179, 219, 280, 358, 440, 529, 696},
    {0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 2, 3, 4, 5, 6, 6}};

/// The recommendation's registers have 16 bits, and sums wrap in them.
short Wrap(int value) {
    return static_cast<short>(static_cast<unsigned short>(value));
}

int Clip(int value, int low, int high) {
    return value < low ? low : value > high ? high : value;
}

int BitLength(unsigned int value) {
    return value == 0 ? 0 : 32 - __builtin_clz(value);
}

// ---- Prediction and scale of the sample at hand ----

/// FLOATA, FLOATB: a magnitude of 15 bits as 4 bits of exponent and 6 of mantissa.
short ToFloat(bool negative, int magnitude) {
    const int exponent = BitLength(static_cast<unsigned int>(magnitude));
    const int mantissa = magnitude == 0 ? 32 : magnitude << 6 >> exponent;
    return Wrap((exponent << 6) + mantissa - (negative ? 0x400 : 0));
}

/// FMULT: coefficient times a value in the form of ToFloat.
int Multiply(short coefficient, short value) {
    const int an = coefficient >> 2;
    const int magnitude = an > 0 ? an : -an & 0x1FFF;
    const int anExponent = BitLength(static_cast<unsigned int>(magnitude));
    const int anMantissa = magnitude == 0 ? 32 : magnitude << 6 >> anExponent;
    const int exponent = anExponent + (value >> 6 & 15) - 19;
    const int mantissa = ((value & 63) * anMantissa + 48) >> 4;
    const int product = exponent < 0 ? mantissa >> -exponent : mantissa << exponent & 0x7FFF;
    return (coefficient < 0) != (value < 0) ? -product : product;
}

/// ACCUM: the estimates of the signal and of its zero part.
struct Estimate {
    short sez, se;
};

Estimate Predict(const tag_KTG726STATE& s) {
    int sum = 0;
    for (int i = 0; i < 6; ++i)
        sum += Multiply(s.b[i], s.dq[i]);
    const short zeros = Wrap(sum);
    const short all = Wrap(zeros + Multiply(s.a[0], s.sr[0]) + Multiply(s.a[1], s.sr[1]));
    return {static_cast<short>(zeros >> 1), static_cast<short>(all >> 1)};
}

/// LIMA, MIX: the quantiser's scale, between the slow and the fast one.
int Scale(const tag_KTG726STATE& s) {
    const int al = s.ap >= 256 ? 64 : s.ap >> 2;
    const int slow = s.yl >> 6;
    const int product = (s.yu - slow) * al;
    return slow + (product < 0 ? -(-product >> 6) : product >> 6);
}

/// LOG, SUBTB, QUAN: the code of difference d.
int Quantise(const Rate& rate, short d, int y) {
    const int dqm = d < 0 ? -d : d;
    const int exponent = BitLength(static_cast<unsigned int>(dqm >> 1));
    const int dl = (exponent << 7) + (dqm << 7 >> exponent & 127);
    const int dln = dl - (y >> 2);
    int level = 0;
    while (level < rate.levels - 1 && dln >= rate.limit[level])
        ++level;
    const int highest = 2 * rate.levels - 1;
    if (d < 0)
        return highest - level;
    return level == 0 && !rate.zeroCode ? highest : level;
}

/// RECONST, ADDA, ANTILOG: the magnitude that a code stands for.
int Restore(int dqln, int y) {
    const int dql = dqln + (y >> 2);
    return dql < 0 ? 0 : ((128 + (dql & 127)) << (dql >> 7 & 15) >> 7) & 0x7FFF;
}

// ---- Adaptation to the next sample ----

/// FILTD, LIMB, FILTE.
void AdaptScale(tag_KTG726STATE& s, int y, int weight) {
    s.yu = static_cast<short>(Clip(y + ((weight * 32 - y) >> 5), 544, 5120));
    s.yl += s.yu + (-s.yl >> 6);
}

/// FILTA, FILTB, SUBTC, FILTC, TRIGA.
void AdaptSpeed(tag_KTG726STATE& s, int y, int speed, bool transition) {
    s.dms = Wrap(s.dms + ((speed * 512 - s.dms) >> 5));
    s.dml = Wrap(s.dml + ((speed * 2048 - s.dml) >> 7));
    const int distance = s.dms * 4 - s.dml;
    const bool fast = y < 1536 || s.td != 0 || (distance < 0 ? -distance : distance) >= s.dml >> 3;
    s.ap = transition ? 256 : Wrap(s.ap + (((fast ? 512 : 0) - s.ap) >> 4));
}

/// TRANS: a jump of the signal out of a tone. magnitude: of the quantised difference.
bool IsTransition(const tag_KTG726STATE& s, int magnitude) {
    const int whole = s.yl >> 15 & 15, fraction = s.yl >> 10 & 31;
    const int threshold = whole > 9 ? 31 << 10 : (32 + fraction) << whole;
    return s.td != 0 && magnitude > (threshold + (threshold >> 1)) >> 1;
}

/// UPA2, LIMC, UPA1, LIMD. dqsez: the difference plus the zero part of the estimate.
void AdaptPoles(tag_KTG726STATE& s, short dqsez) {
    const short pk0 = dqsez < 0;
    const bool changed1 = pk0 != s.pk[0], changed2 = pk0 != s.pk[1];
    int a1 = s.a[0] - (s.a[0] >> 8), a2 = s.a[1] - (s.a[1] >> 7);
    if (dqsez != 0) {
        const int fa1 = Clip(s.a[0], -8191, 8191) * 4;
        a2 += ((changed2 ? -16384 : 16384) + (changed1 ? fa1 : -fa1)) >> 7;
        a1 += changed1 ? -192 : 192;
    }
    a2 = Clip(a2, -12288, 12288);
    s.a[1] = static_cast<short>(a2);
    s.a[0] = static_cast<short>(Clip(a1, a2 - 15360, 15360 - a2));
}

/// XOR, UPB.
void AdaptZeros(tag_KTG726STATE& s, int leak, bool negative, int magnitude) {
    for (int i = 0; i < 6; ++i) {
        const int gain = magnitude == 0 ? 0 : negative == (s.dq[i] < 0) ? 128 : -128;
        s.b[i] = Wrap(s.b[i] - (s.b[i] >> leak) + gain);
    }
}

/// TRIGB, TONE and the delays: takes the sample into the predictor.
void AdaptPredictor(tag_KTG726STATE& s, int leak, bool negative, int magnitude, short sr,
                    short dqsez, bool transition) {
    if (transition) {
        for (short& a : s.a)
            a = 0;
        for (short& b : s.b)
            b = 0;
    } else {
        AdaptPoles(s, dqsez);
        AdaptZeros(s, leak, negative, magnitude);
    }
    s.td = !transition && s.a[1] < -11776;
    for (int i = 5; i > 0; --i)
        s.dq[i] = s.dq[i - 1];
    s.dq[0] = ToFloat(negative, magnitude);
    s.sr[1] = s.sr[0];
    s.sr[0] = ToFloat(sr < 0, (sr < 0 ? -sr : sr) & 0x7FFF);
    s.pk[1] = s.pk[0];
    s.pk[0] = dqsez < 0;
}

/// What encoder and decoder share: the reconstructed sample of a code, and the step of the state.
short Step(const Rate& rate, tag_KTG726STATE& s, const Estimate& estimate, int y, int code) {
    const bool negative = code >= rate.levels;
    const int level = negative ? 2 * rate.levels - 1 - code : code;
    const int magnitude = Restore(rate.restore[level], y);
    const int dq = negative ? -magnitude : magnitude;
    const short sr = Wrap(estimate.se + dq);
    const bool transition = IsTransition(s, magnitude);
    AdaptScale(s, y, rate.weight[level]);
    AdaptPredictor(s, rate.leak, negative, magnitude, sr, Wrap(dq + estimate.sez), transition);
    AdaptSpeed(s, y, rate.speed[level], transition);
    return sr;
}

template <const Rate& kRate>
unsigned char Encode(tag_KTG726STATE* state, short linear) {
    const Estimate estimate = Predict(*state);
    const int y = Scale(*state);
    const int code = Quantise(kRate, Wrap(linear - estimate.se), y);
    Step(kRate, *state, estimate, y, code);
    return static_cast<unsigned char>(code);
}

template <const Rate& kRate>
short Decode(tag_KTG726STATE* state, unsigned char code) {
    return Step(kRate, *state, Predict(*state), Scale(*state), code);
}

template <const Rate& kRate>
void SetRate(tag_KTG726STATE& s) {
    s.bits = kRate.bits;
    s.encode = Encode<kRate>;
    s.decode = Decode<kRate>;
}

bool IsReady(const tag_KTG726STATE* s) {
    return s != nullptr && s->encode != nullptr && s->decode != nullptr && s->bits >= 2 &&
           s->bits <= 5 && s->held >= 0 && s->held < 8;
}

}  // namespace

int InitializeG726(tag_KTG726STATE* state, int rate) {
    if (state == nullptr)
        return KT_ERROR;
    tag_KTG726STATE s = {};
    switch (rate) {
        case 16000:
            SetRate<kRate16>(s);
            break;
        case 24000:
            SetRate<kRate24>(s);
            break;
        case 32000:
            SetRate<kRate32>(s);
            break;
        case 40000:
            SetRate<kRate40>(s);
            break;
        default:
            return KT_ERROR;
    }
    s.rate = rate;
    s.yl = 34816;
    s.yu = 544;
    for (short& dq : s.dq)
        dq = 32;
    for (short& sr : s.sr)
        sr = 32;
    *state = s;
    return KT_OK;
}

int EncodeG726(tag_KTG726STATE* state, unsigned char* out, const short* in, int n) {
    if (!IsReady(state) || out == nullptr || in == nullptr)
        return 0;
    int written = 0;
    for (int i = 0; i < n; ++i) {
        const unsigned char code = state->encode(state, static_cast<short>(in[i] >> 2));
        state->accumulator = state->accumulator << state->bits | code;
        state->held += state->bits;
        if (state->held >= 8) {
            state->held -= 8;
            out[written++] = static_cast<unsigned char>(state->accumulator >> state->held);
        }
    }
    return written;
}

int DecodeG726(tag_KTG726STATE* state, short* out, const unsigned char* in, int n) {
    constexpr int kMaxBytes = 0x7FFFFFFF / 4 - 8;  // keeps the count of 2-bit codes in an int
    if (!IsReady(state) || out == nullptr || in == nullptr || n > kMaxBytes)
        return 0;
    const unsigned int mask = (1u << state->bits) - 1;
    int taken = 0, written = 0;
    for (;;) {
        if (state->held < state->bits) {
            if (taken >= n)
                return written;
            state->accumulator = state->accumulator << 8 | in[taken++];
            state->held += 8;
        }
        state->held -= state->bits;
        const unsigned int code = state->accumulator >> state->held & mask;
        const int linear = state->decode(state, static_cast<unsigned char>(code));
        out[written++] = Wrap(linear * 4);
    }
}
