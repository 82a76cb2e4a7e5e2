// support.h - helpers shared by the property-list tests: catching the catalogue exception a call
// raises, and lists freed at the end of scope.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/types.h"

namespace proptest {

using Strings = std::vector<std::string>;

// Registers the module's types once, before any test marshals a value.
inline const bool kInitialised = (fanout_init(), true);

// What a call raised: the catalogue number (0 for nothing) and arguments.
struct Raised {
    int32_t number = 0;
    Strings args;
    bool operator==(const Raised&) const = default;
};

inline void PrintTo(const Raised& r, std::ostream* os) {
    *os << r.number;
    for (const auto& a : r.args) *os << " \"" << a << '"';
}

inline Raised raised_by(const std::function<void()>& fn) {
    Raised r;
    try {
        fn();
    } catch (const fanout::Exception& e) {
        r.number = e.number();
        for (uint32_t i = 0; i < e.argument_count(); ++i) r.args.emplace_back(e.argument(i));
    }
    return r;
}

// A list header on the stack whose contents are freed at the end of scope.
struct ScopedList {
    Properties list{};
    ScopedList() = default;
    ScopedList(const ScopedList&) = delete;
    ~ScopedList() { kel_free_generic(&list, TC_Kel_Fanout2_Properties); }
    Properties* get() { return &list; }
};

// A list holding each of the ten value types under the key of its name. The
// `_dup` puts get values that die here, so keeping them would leave dangling
// pointers for the sanitizers to find.
struct AllTypes : ScopedList {
    AllTypes() {
        uint8_t bytes[] = {1, 2, 3};
        Kel_Types_OctetList octets{3, 3, bytes};
        int32_t any_value = 77;
        Any any{TC_long, &any_value};
        ScopedList inner;
        properties_put_string_dup(inner.get(), "nested", "yes");
        PropertiesList inner_list{1, 1, inner.get()};  // borrows inner
        ObjectProfile profile{0, octets};
        Object obj = Object_new("IDL:Kel_Fanout2/Repeater:1.0", &profile, 1);
        properties_put_string_dup(&list, "string", "text");
        properties_put_any_dup(&list, "any", &any);
        properties_put_object_dup(&list, "object", obj);
        properties_put_short_dup(&list, "short", -2);
        properties_put_long_dup(&list, "long", -70000);
        properties_put_ulong_dup(&list, "ulong", 4000000000u);
        properties_put_boolean_dup(&list, "boolean", 1);
        properties_put_OctetList_dup(&list, "OctetList", &octets);
        properties_put_properties_dup(&list, "properties", inner.get());
        properties_put_properties_list_dup(&list, "properties_list", &inner_list);
        Object_release(obj);
    }
};

}  // namespace proptest
