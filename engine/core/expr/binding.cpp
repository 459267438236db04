#include "expr/binding.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <stdexcept>
#include <string>

#include "base/parallel.h"
#include "expr/functions.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

constexpr std::size_t kGrain = 256;

std::atomic<std::uint64_t> bindingSerial{0};

// The polyline length of a strand, summed in point order: `longest`, `length` and the arc of
// `t` all sum the same way, so that the longest strand's length / longest is exactly 1 and t is
// exactly 1 at the tip.
float arcLength(std::span<const Vec3f> points) {
    float sum = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k)
        sum += length(points[k] - points[k - 1]);
    return sum;
}

float longestStrand(const StrandSet& strands) {
    const std::size_t n = strands.strandCount();
    const std::vector<float>* preview = strands.strandChannel("_preview");
    const std::size_t blocks = (n + StrandSet::kBlockStrands - 1) / StrandSet::kBlockStrands;
    // Per block: the longest strand that counts, and the longest of all (used when none counts).
    std::vector<float> counted(blocks, 0.0f), all(blocks, 0.0f);
    std::vector<char> anyCounted(blocks, 0);
    parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b) {
            const std::size_t last = std::min(n, (b + 1) * StrandSet::kBlockStrands);
            for (std::size_t s = b * StrandSet::kBlockStrands; s < last; ++s) {
                const float len = arcLength(strands.strandPoints(s));
                all[b] = std::max(all[b], len);
                if (!preview || (*preview)[s] >= 0.5f) {
                    counted[b] = std::max(counted[b], len);
                    anyCounted[b] = 1;
                }
            }
        }
    });
    float longest = 0.0f, longestAll = 0.0f;
    bool any = false;
    for (std::size_t b = 0; b < blocks; ++b) {
        longest = std::max(longest, counted[b]);
        longestAll = std::max(longestAll, all[b]);
        any = any || anyCounted[b];
    }
    // A preview that marks no strand as kept still measures something.
    return any ? longest : longestAll;
}

template <class T>
void checkRootSpan(std::span<const T> span, std::size_t expected, const char* what) {
    if (!span.empty() && span.size() != expected)
        throw std::invalid_argument(std::string("bind: ") + what + " must have " +
                                    std::to_string(expected) + " entries for these strands, not " +
                                    std::to_string(span.size()));
}

}  // namespace

ExpressionBinding ExpressionBinder::operator()(std::shared_ptr<const ExpressionProgram> program,
                                               const StrandSet& strands,
                                               const ExpressionRoots& roots) const {
    if (!program) throw std::invalid_argument("bind: no program to bind");
    const std::size_t n = strands.strandCount();
    checkRootSpan(roots.uvs, 2 * n, "root uvs");
    checkRootSpan(roots.normals, n, "root normals");
    checkRootSpan(roots.restRoots, n, "rest roots");

    ExpressionBinding binding;
    binding.strands_ = &strands;
    binding.roots_ = roots;
    bool pointChannel = false;

    // Maps are sampled once, four components per strand, then split into the columns the code
    // reads.
    std::vector<std::vector<float>> samples(program->maps.size());
    for (std::size_t m = 0; m < program->maps.size(); ++m) {
        samples[m].assign(4 * n, 0.0f);
        program->maps[m].map->sampleRoots(strands, samples[m]);
    }
    binding.mapColumns_.reserve(program->channels.size());
    for (const ChannelRead& read : program->channels) {
        const float* strandColumn = nullptr;
        const float* pointColumn = nullptr;
        if (read.map >= 0) {
            const std::vector<float>& rgba = samples[static_cast<std::size_t>(read.map)];
            std::vector<float>& column = binding.mapColumns_.emplace_back(n);
            const int c = read.component;
            parallelRange(0, n, 4096, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s) {
                    const float* p = &rgba[4 * s];
                    column[s] = c < 4 ? p[c] : 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2];
                }
            });
            strandColumn = column.data();
        } else if (const std::vector<float>* values = strands.strandChannel(read.name)) {
            strandColumn = values->data();
        } else if (const std::vector<float>* points = strands.pointChannel(read.name)) {
            pointColumn = points->data();
            pointChannel = true;
        } else {
            throw ExpressionError("the expression reads '" + read.name +
                                  "', which is neither a variable nor a channel of the strands");
        }
        binding.strandChannels_.push_back(strandColumn);
        binding.pointChannels_.push_back(pointColumn);
    }
    binding.perPoint_ = program->reads(kReadsPoint) || pointChannel;
    if (program->reads(kReadsLongest)) binding.longest_ = longestStrand(strands);
    binding.program_ = std::move(program);
    binding.serial_ = ++bindingSerial;
    return binding;
}

ExpressionState::ExpressionState(const ExpressionBinding& binding)
    : strandChannels(binding.strandChannels().data()),
      pointChannels(binding.pointChannels().data()),
      channelCount(binding.strandChannels().size()) {
    const ExpressionProgram& program = binding.program();
    slots[kSlotFrame] = program.frame;
    slots[kSlotTime] = program.time;
    slots[kSlotLongest] = binding.longest();
}

ExpressionState::ExpressionState(const ExpressionProgram& program) {
    slots[kSlotFrame] = program.frame;
    slots[kSlotTime] = program.time;
}

void enterStrand(const ExpressionBinding& binding, ExpressionState& state, std::size_t strand) {
    const ExpressionProgram& program = binding.program();
    const StrandSet& strands = binding.strands();
    const ExpressionRoots& roots = binding.roots();
    const std::uint32_t read = program.slotsRead;
    float* slot = state.slots;
    state.strand = strand;
    state.point = kNoPoint;
    state.pointInStrand = kNoPoint;
    state.arc = 0.0f;

    const StrandSet::PointRange range = strands.pointRange(strand);
    state.pointBegin = range.begin;
    state.pointCount = range.count;
    const std::span<const Vec3f> points = strands.points().subspan(range.begin, range.count);
    const Vec3f root = points.empty() ? Vec3f{} : points.front();
    if (read & (0x3u << kSlotU)) {
        slot[kSlotU] = roots.uvs.empty() ? 0.0f : roots.uvs[2 * strand];
        slot[kSlotV] = roots.uvs.empty() ? 0.0f : roots.uvs[2 * strand + 1];
    }
    if (read & (0x7u << kSlotX)) {
        slot[kSlotX] = root.x;
        slot[kSlotY] = root.y;
        slot[kSlotZ] = root.z;
    }
    const Vec3f normal = roots.normals.empty() ? Vec3f{} : roots.normals[strand];
    if (read & (0x7u << kSlotNx)) {
        slot[kSlotNx] = normal.x;
        slot[kSlotNy] = normal.y;
        slot[kSlotNz] = normal.z;
    }
    if (read & (1u << kSlotRand)) slot[kSlotRand] = strandRand(strands.ids()[strand]);
    if (read & (1u << kSlotIndex)) {
        const std::size_t n = strands.strandCount();
        slot[kSlotIndex] = n > 1 ? static_cast<float>(strand) / static_cast<float>(n - 1) : 0.0f;
    }
    // The shape of the strand, also needed for t.
    if (read & ((0xFFu << kSlotLength) | (1u << kSlotT))) {
        const float len = arcLength(points);
        const Vec3f tip = points.empty() ? Vec3f{} : points.back();
        const float reach = length(tip - root);
        slot[kSlotLength] = len;
        slot[kSlotReach] = reach;
        slot[kSlotStraightness] = len <= 1e-8f ? 1.0f : reach / len;
        slot[kSlotLift] = reach <= 1e-8f ? 0.0f : dot((tip - root) / reach, normal);
        slot[kSlotTipX] = tip.x;
        slot[kSlotTipY] = tip.y;
        slot[kSlotTipZ] = tip.z;
    }
    if (read & (1u << kSlotId))
        slot[kSlotId] = static_cast<float>(strands.ids()[strand] & 0xFFFFFFu);
    if (read & (1u << kSlotFaceId)) {
        const std::int32_t face = strands.roots()[strand].face;
        slot[kSlotFaceId] = face < 0 ? -1.0f : static_cast<float>(face);
    }
    if (read & (0x7u << kSlotPrefX)) {
        const Vec3f rest = roots.restRoots.empty() ? root : roots.restRoots[strand];
        slot[kSlotPrefX] = rest.x;
        slot[kSlotPrefY] = rest.y;
        slot[kSlotPrefZ] = rest.z;
    }
    if (read & (1u << kSlotPreview)) {
        const std::vector<float>* preview = strands.strandChannel("_preview");
        slot[kSlotPreview] = preview ? (*preview)[strand] : 1.0f;
    }
}

void enterPoint(const ExpressionBinding& binding, ExpressionState& state, std::size_t k) {
    const ExpressionProgram& program = binding.program();
    const StrandSet::PointRange range{state.pointBegin, state.pointCount};
    const Vec3f* points = binding.strands().points().data();
    const std::uint32_t read = program.slotsRead;
    float* slot = state.slots;
    auto pt = [&] {
        return range.count > 1 ? static_cast<float>(k) / static_cast<float>(range.count - 1) : 0.0f;
    };
    if (read & (1u << kSlotT)) {
        // The arc is summed point by point, as arcLength sums it.
        if (state.pointInStrand == kNoPoint || k < state.pointInStrand) {
            state.arc = 0.0f;
            state.pointInStrand = 0;
        }
        for (std::size_t j = state.pointInStrand + 1; j <= k; ++j)
            state.arc += length(points[range.begin + j] - points[range.begin + j - 1]);
        const float len = slot[kSlotLength];
        slot[kSlotT] = len <= 1e-8f ? pt() : state.arc / len;
    }
    state.pointInStrand = k;
    state.point = range.begin + k;
    if (read & (1u << kSlotPt)) slot[kSlotPt] = pt();
    if (read & (0x7u << kSlotPx)) {
        const Vec3f p = points[range.begin + k];
        slot[kSlotPx] = p.x;
        slot[kSlotPy] = p.y;
        slot[kSlotPz] = p.z;
    }
    if (read & (1u << kSlotPointIndex)) slot[kSlotPointIndex] = static_cast<float>(k);
}

namespace {

// The interpreter: one pass over the code with the stack on the caller's stack. Returns the
// stack's top after the run.
const float* run(const ExpressionProgram& program, const ExpressionState& s, float* stack) {
    float* sp = stack;
    const std::span<const ExpressionCurve> curves = program.curves;
    for (const Instruction& i : program.code) {
        switch (i.dispatch) {
            case Dispatch::PushConst:
                *sp++ = i.value;
                break;
            case Dispatch::PushVar:
                *sp++ = s.slots[i.a];
                break;
            case Dispatch::PushChannel: {
                float v = 0.0f;
                if (i.index < s.channelCount) {
                    if (const float* column = s.strandChannels[i.index])
                        v = column[s.strand];
                    else if (const float* pointColumn = s.pointChannels[i.index];
                             pointColumn && s.point != kNoPoint)
                        v = pointColumn[s.point];
                }
                *sp++ = v;
                break;
            }
            case Dispatch::Negate:
                sp[-1] = -sp[-1];
                break;
            case Dispatch::Add:
                sp[-2] = sp[-2] + sp[-1];
                --sp;
                break;
            case Dispatch::Subtract:
                sp[-2] = sp[-2] - sp[-1];
                --sp;
                break;
            case Dispatch::Multiply:
                sp[-2] = sp[-2] * sp[-1];
                --sp;
                break;
            case Dispatch::Divide:
            case Dispatch::Power:
            case Dispatch::Less:
            case Dispatch::LessEqual:
            case Dispatch::Greater:
            case Dispatch::GreaterEqual:
            case Dispatch::Equal:
            case Dispatch::NotEqual:
            case Dispatch::Remainder:
                sp[-2] = binaryOp(static_cast<BinaryOp>(i.a), sp[-2], sp[-1]);
                --sp;
                break;
            case Dispatch::CallNumber: {
                const auto id = static_cast<FunctionId>(i.a);
                float* args = sp - (readsCurve(id) ? 1 : i.index);
                args[0] = callNumberFunction(id, args, i.b, curves, i.index);
                sp = args + 1;
                break;
            }
            case Dispatch::SelectNumber:
                sp[-3] = sp[-3] != 0.0f ? sp[-2] : sp[-1];
                sp -= 2;
                break;
            case Dispatch::NegateVector:
                sp[-1] = -sp[-1];
                sp[-2] = -sp[-2];
                sp[-3] = -sp[-3];
                break;
            case Dispatch::BinaryVector: {
                const bool leftNumber = i.b & kLeftIsNumber, rightNumber = i.b & kRightIsNumber;
                float* right = sp - (rightNumber ? 1 : 3);
                float* left = right - (leftNumber ? 1 : 3);
                const float l[3] = {left[0], left[leftNumber ? 0 : 1], left[leftNumber ? 0 : 2]};
                const float r[3] = {right[0], right[rightNumber ? 0 : 1],
                                    right[rightNumber ? 0 : 2]};
                const auto op = static_cast<BinaryOp>(i.a);
                left[0] = binaryOp(op, l[0], r[0]);
                left[1] = binaryOp(op, l[1], r[1]);
                left[2] = binaryOp(op, l[2], r[2]);
                sp = left + 3;
                break;
            }
            case Dispatch::SelectVector: {
                float* result = sp - 7;
                const float* chosen = result[0] != 0.0f ? sp - 6 : sp - 3;
                result[0] = chosen[0];
                result[1] = chosen[1];
                result[2] = chosen[2];
                sp = result + 3;
                break;
            }
            case Dispatch::CallVector: {
                const auto id = static_cast<FunctionId>(i.a);
                float* args = sp - (readsCurve(id) ? 1 : i.index);
                float result[3];
                callVectorFunction(id, args, i.b, curves, i.index, result);
                args[0] = result[0];
                args[1] = result[1];
                args[2] = result[2];
                sp = args + 3;
                break;
            }
            case Dispatch::Component:
                sp[-3] = sp[-3 + i.a];
                sp -= 2;
                break;
            case Dispatch::Widen:
                sp[0] = sp[1] = sp[-1];
                sp += 2;
                break;
        }
    }
    return sp;
}

template <class T>
void evaluateAll(const ExpressionBinding& binding, std::span<T> out, ExpressionLevel level) {
    const ExpressionProgram& program = binding.program();
    const StrandSet& strands = binding.strands();
    constexpr bool vector = std::is_same_v<T, Vec3f>;
    if (vector != (program.resultType == ExpressionType::Vector))
        throw std::invalid_argument(std::string("evaluateExpression: the expression gives a ") +
                                    (vector ? "number" : "vector") + ", and the output holds " +
                                    (vector ? "vectors" : "numbers"));
    const std::size_t expected =
        level == ExpressionLevel::Strand ? strands.strandCount() : strands.pointCount();
    if (out.size() != expected)
        throw std::invalid_argument(
            "evaluateExpression: the output has " + std::to_string(out.size()) + " values for " +
            std::to_string(expected) + (level == ExpressionLevel::Strand ? " strands" : " points"));
    const bool perPoint = binding.perPoint();
    parallelRange(0, strands.strandCount(), kGrain, [&](std::size_t begin, std::size_t end) {
        ExpressionState state(binding);
        float stack[kStackFloats];
        auto value = [&]() -> T {
            const float* top = run(program, state, stack);
            if constexpr (vector)
                return Vec3f{top[-3], top[-2], top[-1]};
            else
                return top[-1];
        };
        for (std::size_t s = begin; s < end; ++s) {
            enterStrand(binding, state, s);
            const StrandSet::PointRange range{state.pointBegin, state.pointCount};
            if (level == ExpressionLevel::Strand) {
                if (perPoint && range.count > 0) enterPoint(binding, state, 0);
                out[s] = value();
            } else if (!perPoint) {
                if (range.count == 0) continue;
                const T v = value();
                std::fill_n(out.begin() + static_cast<std::ptrdiff_t>(range.begin), range.count, v);
            } else {
                for (std::size_t k = 0; k < range.count; ++k) {
                    enterPoint(binding, state, k);
                    out[range.begin + k] = value();
                }
            }
        }
    });
}

}  // namespace

float evaluateNumber(const ExpressionProgram& program, const ExpressionState& state) {
    float stack[kStackFloats];
    return run(program, state, stack)[-1];
}

Vec3f evaluateVector(const ExpressionProgram& program, const ExpressionState& state) {
    float stack[kStackFloats];
    const float* top = run(program, state, stack);
    return {top[-3], top[-2], top[-1]};
}

namespace {
void checkUniform(const ExpressionProgram& program, ExpressionType type, const char* operation) {
    if (!program.isUniform())
        throw std::invalid_argument(std::string(operation) +
                                    ": the expression reads the strands; bind it and evaluate it "
                                    "per strand");
    if (program.resultType != type)
        throw std::invalid_argument(std::string(operation) + ": the expression gives a " +
                                    (type == ExpressionType::Number ? "vector" : "number"));
}
}  // namespace

float evaluateUniformNumber(const ExpressionProgram& program) {
    checkUniform(program, ExpressionType::Number, "evaluateUniformNumber");
    return evaluateNumber(program, ExpressionState(program));
}

Vec3f evaluateUniformVector(const ExpressionProgram& program) {
    checkUniform(program, ExpressionType::Vector, "evaluateUniformVector");
    return evaluateVector(program, ExpressionState(program));
}

void evaluateExpression(const ExpressionBinding& binding, std::span<float> out,
                        ExpressionLevel level) {
    evaluateAll(binding, out, level);
}

void evaluateExpression(const ExpressionBinding& binding, std::span<Vec3f> out,
                        ExpressionLevel level) {
    evaluateAll(binding, out, level);
}

}  // namespace velmorin
