// The expression compiler's variables and the names it takes over from XGen: the strand
// variables and their aliases, the names it refuses with the reason, and XGen map paths.
#include <algorithm>
#include <array>
#include <string>

#include "expr/compiler_internal.h"

namespace velmorin::expr_compiler {
namespace {

constexpr std::array<const char*, kSlotCount> kSlotNames = {
    "u",     "v",     "x",      "y",       "z",     "nx",           "ny",    "nz",
    "rand",  "index", "length", "longest", "reach", "straightness", "lift",  "tipx",
    "tipy",  "tipz",  "t",      "pt",      "px",    "py",           "pz",    "pointIndex",
    "frame", "time",  "id",     "faceId",  "prefx", "prefy",        "prefz", "_preview"};

struct VectorName {
    std::string_view name;
    std::uint8_t slot;
};
constexpr VectorName kVectorNames[] = {
    {"P", kSlotX}, {"N", kSlotNx}, {"tip", kSlotTipX}, {"pointP", kSlotPx}, {"Pref", kSlotPrefX}};

struct Alias {
    std::string_view from;
    std::string_view to;
};
constexpr Alias kAliases[] = {{"cLength", "length"}, {"faceid", "faceId"}, {"Pg", "P"},
                              {"Pw", "P"},           {"Pgw", "P"},         {"Ng", "N"},
                              {"Prefg", "Pref"},     {"Prefw", "Pref"},    {"Prefgw", "Pref"}};

struct Refusal {
    std::string_view name;
    std::string_view text;
};
constexpr std::string_view kNoNref =
    "XGen's $Nref (the reference normal) has no Velmorin equivalent: $N is the scalp's normal";
constexpr std::string_view kNoDerivatives =
    "XGen's surface derivatives ($dPdu, $dPdv) are not available: build a direction from $N, "
    "e.g. cross($N, [0, 1, 0])";
constexpr std::string_view kDesc =
    "${DESC} means something only inside an XGen map path, map('${DESC}/paintmaps/name/')";
const Refusal kRefusedNames[] = {
    {"Nref", kNoNref},
    {"Nrefg",
     "XGen's $Nrefg (the reference normal) has no Velmorin equivalent: $N is the scalp's normal"},
    {"dPdu", kNoDerivatives},
    {"dPdv", kNoDerivatives},
    {"dPdug", kNoDerivatives},
    {"dPdvg", kNoDerivatives},
    {"dPduref", kNoDerivatives},
    {"dPdvref", kNoDerivatives},
    {"dPdurefg", kNoDerivatives},
    {"dPdvrefg", kNoDerivatives},
    {"cWidth",
     "XGen's $cWidth has no Velmorin equivalent: the Width node sets the width, and no variable "
     "reads it"},
    {"cDepth", "XGen's $cDepth (a card's depth) has no Velmorin equivalent"},
    {"aCount", "XGen's $aCount (archives) has no Velmorin equivalent"},
    {"descId", "XGen's $descId has no Velmorin equivalent (an expression belongs to one groom)"},
    {"patchId",
     "XGen's $patchId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
     "triangle"},
    {"objectId",
     "XGen's $objectId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
     "triangle"},
    {"Cs",
     "XGen's $Cs (the region color) has no Velmorin equivalent: read a painted map with "
     "cmap(\"name\")"},
    {"As",
     "XGen's $As (the region alpha) has no Velmorin equivalent: read a painted map with "
     "map(\"name\")"},
    {"DESC", kDesc},
};

const Refusal kRefusedFunctions[] = {
    {"printf",
     "printf is not supported (expressions run on many threads at once): show a value by "
     "returning it"},
    {"sprintf", "sprintf is not supported: strings appear only as map names"},
    {"getVar", "getVar is not supported: read the variable by its name ($name)"},
};

// The name an XGen map path stands for: its last part that is neither a variable nor a folder of
// XGen's own, without an extension. Empty when the path names nothing.
std::string xgenMapName(std::string_view path) {
    std::string name;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find_first_of("/\\", start);
        if (end == std::string_view::npos) end = path.size();
        std::string_view part = path.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == "." || part == "paintmaps" ||
            part.find('$') != std::string_view::npos)
            continue;
        if (const std::size_t dot = part.rfind('.'); dot != std::string_view::npos && dot > 0)
            part = part.substr(0, dot);
        name = part;
    }
    return name;
}

}  // namespace

std::string_view refusedFunction(std::string_view name) {
    for (const Refusal& refusal : kRefusedFunctions)
        if (refusal.name == name) return refusal.text;
    return {};
}

std::string_view refusedVariable(std::string_view name) {
    for (const Refusal& refusal : kRefusedNames)
        if (refusal.name == name) return refusal.text;
    return {};
}

bool isBuiltinVariable(std::string_view name) {
    return std::find(kSlotNames.begin(), kSlotNames.end(), name) != kSlotNames.end() ||
           std::any_of(std::begin(kVectorNames), std::end(kVectorNames),
                       [&](const VectorName& v) { return v.name == name; });
}

// ---- Variables

Type Compiler::readVariable(const std::string& name, std::size_t nameAt, Operand& operand) {
    operand.variable = "$" + name;
    if (const auto local = locals_.find(name); local != locals_.end()) {
        readLocal(local->second, name, nameAt);
        return local->second.type;
    }
    if (const ExpressionVariable* v = env_.variable(name)) {
        emitConst(v->value.x);
        if (!v->isVector) return Type::Number;
        emitConst(v->value.y);
        emitConst(v->value.z);
        return Type::Vector;
    }
    std::string_view resolved = name;
    for (const Alias& alias : kAliases)
        if (alias.from == name) resolved = alias.to;
    for (int slot = 0; slot < kSlotCount; ++slot)
        if (resolved == kSlotNames[static_cast<std::size_t>(slot)]) {
            emit(make(Opcode::PushVar, static_cast<std::uint8_t>(slot)));
            return Type::Number;
        }
    for (const VectorName& v : kVectorNames)
        if (resolved == v.name) {
            for (std::uint8_t k = 0; k < 3; ++k)
                emit(make(Opcode::PushVar, static_cast<std::uint8_t>(v.slot + k)));
            return Type::Vector;
        }
    for (const Refusal& refusal : kRefusedNames)
        if (refusal.name == name) fail(nameAt, std::string(refusal.text));
    // Anything else names a channel of the strands, found when the program is bound.
    operand.channel = true;
    emit(make(Opcode::PushChannel, 0, 0, channelIndex({name, -1, 0}, nameAt)));
    return Type::Number;
}

// ---- Tables

std::uint16_t Compiler::channelIndex(const ChannelRead& read, std::size_t at) {
    const auto key = std::make_tuple(read.name, read.map, read.component);
    if (const auto found = channelIndices_.find(key); found != channelIndices_.end())
        return found->second;
    if (program_.channels.size() >= 0xFFFF)
        fail(at, "the expression reads too many channels and maps (65535 at most)");
    program_.channels.push_back(read);
    const auto index = static_cast<std::uint16_t>(program_.channels.size() - 1);
    channelIndices_.emplace(key, index);
    return index;
}

std::int32_t Compiler::mapIndex(const std::string& written, std::size_t at, const std::string& fn) {
    const bool xgenPath =
        written.find_first_of("/\\") != std::string::npos || written.find('$') != std::string::npos;
    std::string name = written;
    if (xgenPath) {
        name = xgenMapName(written);
        if (name.empty())
            fail(at, fn + "('" + written +
                         "'): give the name of one of the groom's maps, map(\"name\")");
    }
    for (std::size_t i = 0; i < program_.maps.size(); ++i)
        if (program_.maps[i].name == name) return static_cast<std::int32_t>(i);
    if (!env_.resolveMap)
        fail(at, "no maps are given to this expression, so " + fn + "(\"" + name +
                     "\") can't be read here");
    std::shared_ptr<const ExpressionMapSource> map;
    try {
        map = env_.resolveMap(name);
    } catch (const ExpressionError& e) {
        fail(at, e.what());
    }
    if (!map) {
        if (xgenPath)
            fail(at, fn + "('" + written +
                         "'): XGen's paint maps do not carry over; Velmorin reads the groom's own "
                         "maps by name, here '" +
                         name +
                         "', and the groom has none of that name (paint one in Groom Tools > "
                         "Paint, or write map(\"name\"))");
        fail(at, "no map named '" + name + "' (Groom Tools > Paint lists them)");
    }
    program_.maps.push_back({name, std::move(map)});
    return static_cast<std::int32_t>(program_.maps.size() - 1);
}

}  // namespace velmorin::expr_compiler

namespace velmorin {

const char* slotName(int slot) {
    return slot >= 0 && slot < kSlotCount
               ? expr_compiler::kSlotNames[static_cast<std::size_t>(slot)]
               : "";
}

}  // namespace velmorin
