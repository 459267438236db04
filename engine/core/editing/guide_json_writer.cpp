// Guide data JSON, the writer: one canonical text without spaces, written in parallel pieces for
// a large hierarchy and joined in order, so that the text never depends on the thread count.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

#include <nlohmann/json.hpp>

#include "base/parallel.h"
#include "editing/guide_hierarchy.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kParallelWriteAbove = 16;
constexpr std::size_t kWriteBlock = 64;  // guides per piece of text written in parallel

void appendNumber(std::string& out, double value) {
    // A value that is not finite is written as 0, so that the text always reads back.
    if (!std::isfinite(value)) value = 0.0;
    // "-0" would read back as the integer 0; with a fraction it stays a negative zero.
    if (value == 0.0 && std::signbit(value)) {
        out += "-0.0";
        return;
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void appendString(std::string& out, std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
    });
    if (plain) {
        out += '"';
        out += text;
        out += '"';
    } else {
        out += Json(std::string(text)).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

void appendFloats(std::string& out, std::span<const float> values, float fallback) {
    out += '[';
    if (values.empty()) appendNumber(out, fallback);
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i) out += ',';
        appendNumber(out, values[i]);
    }
    out += ']';
}

void appendVector(std::string& out, const Vec3f& v) {
    out += '[';
    appendNumber(out, v.x);
    out += ',';
    appendNumber(out, v.y);
    out += ',';
    appendNumber(out, v.z);
    out += ']';
}

void appendFlat(std::string& out, std::span<const Vec3f> points) {
    out += '[';
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (i) out += ',';
        appendNumber(out, points[i].x);
        out += ',';
        appendNumber(out, points[i].y);
        out += ',';
        appendNumber(out, points[i].z);
    }
    out += ']';
}

void appendGuide(std::string& out, const Guide& g) {
    const bool child = g.parent != 0;
    out += "{\"id\":";
    appendInteger(out, g.id);
    out += ",\"group\":";
    appendInteger(out, g.group);
    out += ",\"root\":[";
    appendInteger(out, g.root.face);
    out += ',';
    appendNumber(out, g.root.u);
    out += ',';
    appendNumber(out, g.root.v);
    out += "],\"frameUp\":";
    appendVector(out, g.frameUp);
    out += ",\"tube\":{\"shape\":";
    appendString(out, tubeShapeNameOf(g.tube));
    out += ",\"width\":";
    appendFloats(out, g.tube.width, 1.0f);
    out += ",\"aspect\":";
    appendFloats(out, g.tube.aspect, 1.0f);
    out += ",\"twist\":";
    appendFloats(out, g.tube.twist, 0.0f);
    out += '}';
    if (child) {
        out += ",\"parent\":";
        appendInteger(out, g.parent);
    }
    if (g.locked) out += ",\"locked\":true";
    if (g.ownSegments) out += ",\"ownSegments\":true";
    if (!g.attributes.empty()) {
        out += ",\"attributes\":{";
        bool first = true;
        for (const auto& [name, value] : g.attributes) {
            if (!first) out += ',';
            first = false;
            appendString(out, name);
            out += ':';
            appendNumber(out, value);
        }
        out += '}';
    }
    if (!g.pointAttributes.empty()) {
        out += ",\"pointAttributes\":{";
        bool first = true;
        for (const auto& [name, layer] : g.pointAttributes) {
            if (!first) out += ',';
            first = false;
            appendString(out, name);
            out += ":[";
            for (std::size_t i = 0; i < layer.size(); ++i) {
                if (i) out += ',';
                appendNumber(out, layer[i]);
            }
            out += ']';
        }
        out += '}';
    }
    if (child && !g.locked) {
        out += ",\"offsets\":";
        appendFlat(out, g.offsets);
        if (g.pointCount > 0) {
            out += ",\"pointCount\":";
            appendInteger(out, g.pointCount);
        }
    } else {
        out += ",\"points\":";
        appendFlat(out, g.points);
        if (!g.rootLocal.empty()) {
            out += ",\"rootLocal\":";
            appendFlat(out, g.rootLocal);
            out += ",\"frameUpLocal\":";
            appendVector(out, g.frameUpLocal);
        }
    }
    out += '}';
}

}  // namespace

std::string GuideHierarchy::toJson() const {
    std::string out = "{\"groups\":[";
    for (std::size_t i = 0; i < groups_.size(); ++i) {
        const GuideGroup& group = groups_[i];
        if (i) out += ',';
        out += "{\"id\":";
        appendInteger(out, group.id);
        out += ",\"name\":";
        appendString(out, group.name);
        out += ",\"parent\":";
        appendInteger(out, group.parent);
        if (group.segments > 0) {
            out += ",\"segments\":";
            appendInteger(out, group.segments);
        }
        out += '}';
    }
    out += "],\"guides\":[";
    const std::size_t n = guides_.size();
    if (n <= kParallelWriteAbove) {
        for (std::size_t i = 0; i < n; ++i) {
            if (i) out += ',';
            appendGuide(out, guides_[i]);
        }
    } else {
        // Blocks of guides written in parallel, then joined in order.
        const std::size_t blocks = (n + kWriteBlock - 1) / kWriteBlock;
        std::vector<std::string> pieces(blocks);
        parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t b = begin; b < end; ++b) {
                std::string& piece = pieces[b];
                piece.reserve(kWriteBlock * 512);
                const std::size_t last = std::min(n, (b + 1) * kWriteBlock);
                for (std::size_t i = b * kWriteBlock; i < last; ++i) {
                    if (i) piece += ',';
                    appendGuide(piece, guides_[i]);
                }
            }
        });
        std::size_t total = out.size();
        for (const std::string& piece : pieces)
            total += piece.size();
        out.reserve(total + 256);
        for (const std::string& piece : pieces)
            out += piece;
    }
    out += ']';
    if (scalpTopology_ != 0) {
        out += ",\"scalpTopology\":";
        appendInteger(out, scalpTopology_);
    }
    if (!tubeShapes_.empty()) {
        out += ",\"tubeShapes\":[";
        bool first = true;
        for (const auto& [name, shape] : tubeShapes_) {
            if (!first) out += ',';
            first = false;
            out += "{\"name\":";
            appendString(out, shape->name);
            out += ",\"points\":[";
            for (std::size_t i = 0; i < shape->points.size(); ++i) {
                if (i) out += ',';
                appendNumber(out, shape->points[i].x);
                out += ',';
                appendNumber(out, shape->points[i].y);
            }
            out += "],\"smooth\":";
            out += shape->smooth ? "true" : "false";
            out += '}';
        }
        out += ']';
    }
    out += ",\"version\":";
    appendInteger(out, kGuideDataVersion);
    out += '}';
    return out;
}

}  // namespace velmorin
