// support.h - helpers shared by the property-list tests: a temporary
// directory, catching the catalogue exception a call raises, a list freed at
// the end of scope, and one list holding every value type.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/types.h"

namespace proptest {

// Registers the module's types once, before any test marshals a value.
inline const bool kInitialised = (fanout_init(), true);

// A fresh directory, removed with everything in it at the end of scope.
class TempDir {
  public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "fanout-props-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// What a call raised: the catalogue number (0 for nothing) and arguments.
struct Raised {
    int32_t number = 0;
    std::vector<std::string> args;
};

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
    ScopedList& operator=(const ScopedList&) = delete;
    ~ScopedList() { kel_free_generic(&list, TC_Kel_Fanout2_Properties); }
    Properties* get() { return &list; }
};

// One list holding each of the ten value types under the key of its name.
// The values put are stack copies, so a `_dup` that kept the caller's
// block would leave dangling pointers for the sanitizers to find.
struct AllTypes {
    ScopedList list;
    Properties inner{};
    Object obj = nullptr;

    AllTypes() {
        uint8_t bytes[] = {1, 2, 3};
        Kel_Types_OctetList octets{3, 3, bytes};
        int32_t any_value = 77;
        Any any{TC_long, &any_value};
        properties_put_string_dup(&inner, "nested", "yes");
        PropertiesList inner_list{1, 1, &inner};  // borrows inner
        ObjectProfile profile{0, octets};
        obj = Object_new("IDL:Kel_Fanout2/Repeater:1.0", &profile, 1);
        Properties* p = list.get();
        properties_put_string_dup(p, "string", "text");
        properties_put_any_dup(p, "any", &any);
        properties_put_object_dup(p, "object", obj);
        properties_put_short_dup(p, "short", -2);
        properties_put_long_dup(p, "long", -70000);
        properties_put_ulong_dup(p, "ulong", 4000000000u);
        properties_put_boolean_dup(p, "boolean", 1);
        properties_put_OctetList_dup(p, "OctetList", &octets);
        properties_put_properties_dup(p, "properties", &inner);
        properties_put_properties_list_dup(p, "properties_list", &inner_list);
    }
    ~AllTypes() {
        kel_free_generic(&inner, TC_Kel_Fanout2_Properties);
        Object_release(obj);
    }
};

}  // namespace proptest
