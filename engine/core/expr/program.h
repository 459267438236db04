#pragma once
// The compiled form of an expression: flat postfix code of 12-byte instructions over a stack of
// floats (a number takes one, a vector three), with the tables the code refers to. A program is
// immutable once compiled and shared by every thread that evaluates it.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

class ExpressionMapSource;

// What an expression gives, by its width on the stack.
enum class ExpressionType : std::uint8_t { Number = 1, Vector = 3 };

enum class Opcode : std::uint8_t {
    PushConst = 0,     // push value
    PushVar = 1,       // push slot a
    PushChannel = 2,   // push channel `index` (strand channel at the strand, else point channel)
    Negate = 3,        // negate the top number
    Binary = 4,        // a: a BinaryOp on two numbers
    CallNumber = 5,    // a: FunctionId, b: argument count, index: stack floats (or curve number)
    SelectNumber = 6,  // condition, yes, no: nonzero takes yes
    NegateVector = 7,
    BinaryVector = 8,  // a: BinaryOp (arithmetic only), b: bit 1 left is a number, bit 2 right
    SelectVector = 9,  // condition and two vectors
    CallVector = 10,   // as CallNumber; the result is three numbers
    Component = 11,    // a: 0 to 2, of the top vector
    Widen = 12,        // the top number spread to a vector
};

enum class BinaryOp : std::uint8_t {
    Add = 0,
    Subtract = 1,
    Multiply = 2,
    Divide = 3,  // a zero divisor gives 0
    Power = 4,
    Less = 5,
    LessEqual = 6,
    Greater = 7,
    GreaterEqual = 8,
    Equal = 9,
    NotEqual = 10,
    Remainder = 11,  // with the first's sign; a zero divisor gives 0
};

// Bits of BinaryVector's operand b.
inline constexpr std::uint8_t kLeftIsNumber = 1;
inline constexpr std::uint8_t kRightIsNumber = 2;

// The interpreter's own dispatch code: the opcode with a binary operator's sub-operation folded
// in, so that a run takes one branch per instruction. Derived from op and a when compiling ends.
enum class Dispatch : std::uint8_t {
    PushConst,
    PushVar,
    PushChannel,
    Negate,
    Add,
    Subtract,
    Multiply,
    Divide,
    Power,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
    Equal,
    NotEqual,
    Remainder,
    CallNumber,
    SelectNumber,
    NegateVector,
    BinaryVector,
    SelectVector,
    CallVector,
    Component,
    Widen,
};

struct Instruction {
    Opcode op = Opcode::PushConst;
    std::uint8_t a = 0;
    std::uint8_t b = 0;
    Dispatch dispatch = Dispatch::PushConst;  // in the padding byte; see Dispatch
    std::uint16_t index = 0;
    std::uint16_t reserved2 = 0;
    float value = 0.0f;

    bool operator==(const Instruction&) const = default;
};
static_assert(sizeof(Instruction) == 12, "instructions are 12 bytes");

// The variable slots, one float each. Vectors take three consecutive slots.
enum Slot : std::uint8_t {
    kSlotU = 0,
    kSlotV = 1,
    kSlotX = 2,
    kSlotY = 3,
    kSlotZ = 4,
    kSlotNx = 5,
    kSlotNy = 6,
    kSlotNz = 7,
    kSlotRand = 8,
    kSlotIndex = 9,
    kSlotLength = 10,
    kSlotLongest = 11,
    kSlotReach = 12,
    kSlotStraightness = 13,
    kSlotLift = 14,
    kSlotTipX = 15,
    kSlotTipY = 16,
    kSlotTipZ = 17,
    kSlotT = 18,
    kSlotPt = 19,
    kSlotPx = 20,
    kSlotPy = 21,
    kSlotPz = 22,
    kSlotPointIndex = 23,
    kSlotFrame = 24,
    kSlotTime = 25,
    kSlotId = 26,
    kSlotFaceId = 27,
    kSlotPrefX = 28,
    kSlotPrefY = 29,
    kSlotPrefZ = 30,
    kSlotPreview = 31,
};
inline constexpr int kSlotCount = 32;

// The most stack floats a program may need; the compiler refuses deeper programs.
inline constexpr int kStackFloats = 1024;
// The most instructions a program may hold.
inline constexpr std::size_t kMaxInstructions = 0x100000;

// What a program reads, from a scan of its variable pushes and channels. The per-strand fill of
// the slots is driven by these, so that a program that reads only rand computes no arc length.
enum ExpressionCapture : std::uint32_t {
    kReadsRoot = 1u << 0,      // slots below 8, or lift
    kReadsRest = 1u << 1,      // prefx/y/z
    kReadsShape = 1u << 2,     // length to tipz
    kReadsLongest = 1u << 3,   // longest
    kReadsPoint = 1u << 4,     // t to pointIndex
    kReadsArc = 1u << 5,       // t, px, py, pz
    kReadsChannels = 1u << 6,  // a channel of the strands
    kReadsMaps = 1u << 7,      // a map
    kReadsStrand = 1u << 8,    // anything per strand or per point: all but frame, time, constants
    kReadsTime = 1u << 9,      // frame or time
};

// A curve of constant keys, built when the expression compiles. Keys are in position order.
struct ExpressionCurve {
    struct Key {
        float position = 0.0f;
        Vec3f value;                     // numbers fill all three components
        Vec3f slope;                     // per unit of position, for the spline forms
        std::uint8_t interpolation = 1;  // of the segment that starts here: 0 none, 1 linear,
                                         // 2 smooth, 3 spline, 4 monotone spline
        bool operator==(const Key&) const = default;
    };
    std::vector<Key> keys;

    bool operator==(const ExpressionCurve&) const = default;
    // 1 with no keys; the end values outside the keys; the upper key's value on a segment of
    // no length.
    Vec3f at(float t) const;
};
// Fills the slopes of keys sorted by position: neighbour differences for the spline form,
// harmonic means of the secants (0 at a turn) for the monotone form.
void computeCurveSlopes(ExpressionCurve& curve);

// A channel the code reads: a strand or point channel by name, or a map's component.
struct ChannelRead {
    std::string name;            // the channel's or the map's name
    std::int32_t map = -1;       // index into maps, or -1 for a channel of the strands
    std::uint8_t component = 0;  // for maps: 0 r, 1 g, 2 b, 3 a, 4 luminance
    bool operator==(const ChannelRead&) const = default;
};

struct MapUse {
    std::string name;
    std::shared_ptr<const ExpressionMapSource> map;
};

struct ExpressionProgram {
    std::string source;
    std::vector<Instruction> code;
    std::vector<ChannelRead> channels;  // PushChannel's index refers here
    std::vector<MapUse> maps;
    std::vector<ExpressionCurve> curves;  // CallNumber/CallVector's index for curve calls
    ExpressionType resultType = ExpressionType::Number;
    std::uint32_t slotsRead = 0;  // bit s: slot s is read
    std::uint32_t captures = 0;   // ExpressionCapture bits
    int stackFloats = 0;          // the deepest the stack gets
    float frame = 0.0f;           // the environment's frame and time, for those slots
    float time = 0.0f;
    std::uint64_t key = 0;  // a hash of the code and its tables, for caches

    bool reads(ExpressionCapture capture) const { return (captures & capture) != 0; }
    // Whether the value is the same for every strand: it reads only frame, time and constants.
    bool isUniform() const { return !reads(kReadsStrand); }
};

// A double as a float; values past the float range become infinities, where a plain conversion
// would be undefined.
inline float narrowToFloat(double d) {
    constexpr double kMax = 3.4028234663852886e38;
    if (d > kMax) return __builtin_huge_valf();
    if (d < -kMax) return -__builtin_huge_valf();
    return static_cast<float>(d);
}

// The names of the slots, in slot order.
const char* slotName(int slot);

}  // namespace velmorin
