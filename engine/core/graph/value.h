#pragma once
// Value: what an edge of the graph carries. A tagged union of nothing and a shared pointer to const
// of one of the engine's result types. Copying a Value copies a pointer; nothing is ever changed
// through one.

#include <cstddef>
#include <memory>
#include <string_view>
#include <variant>

namespace velmorin {

class StrandSet;
struct GuideSet;
class ScalpMesh;
class GuideHierarchy;
struct PartLines;
class FieldValue;
struct Ramp;
struct FlowField;
struct MapCatalogValue;
struct ScalpHistory;
struct SculptEdits;
struct UniformValue;

class Value {
  public:
    // The order of the alternatives is fixed: index 0 is nothing.
    using Storage =
        std::variant<std::monostate, std::shared_ptr<const StrandSet>,
                     std::shared_ptr<const GuideSet>, std::shared_ptr<const ScalpMesh>,
                     std::shared_ptr<const GuideHierarchy>, std::shared_ptr<const PartLines>,
                     std::shared_ptr<const FieldValue>, std::shared_ptr<const Ramp>,
                     std::shared_ptr<const FlowField>, std::shared_ptr<const MapCatalogValue>,
                     std::shared_ptr<const ScalpHistory>, std::shared_ptr<const SculptEdits>,
                     std::shared_ptr<const UniformValue>>;

    Value() = default;
    template <class T>
    Value(std::shared_ptr<const T> pointer) {  // NOLINT: a pointer is a Value
        if (pointer) storage_ = std::move(pointer);
    }
    template <class T>
    Value(std::shared_ptr<T> pointer)  // NOLINT
        : Value(std::shared_ptr<const T>(std::move(pointer))) {}

    bool empty() const { return storage_.index() == 0; }
    std::size_t index() const { return storage_.index(); }

    template <class T>
    bool holds() const {
        return std::holds_alternative<std::shared_ptr<const T>>(storage_);
    }
    // The held pointer, or null when the Value holds something else.
    template <class T>
    std::shared_ptr<const T> get() const {
        if (auto* p = std::get_if<std::shared_ptr<const T>>(&storage_)) return *p;
        return nullptr;
    }
    // The address of what is held (null for nothing): Values are compared by identity.
    const void* identity() const;
    bool operator==(const Value& other) const { return identity() == other.identity(); }

    // "strands", "guides", "nothing"... as messages name what arrived.
    std::string_view kindName() const;

    const Storage& storage() const { return storage_; }

  private:
    Storage storage_;
};

}  // namespace velmorin
