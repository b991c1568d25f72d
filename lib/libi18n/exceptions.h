#pragma once

#include <string>
#include <utility>

#include "libi18n/catalogue.h"
#include "libi18n/i18n.h"

namespace brenholt::monitoring_modules::libi18n {

class error_generic : public _i18n_exception<i18n_exception> {
public:
    explicit error_generic(i18n_msg msg) : _i18n_exception(std::move(msg)) {}
    explicit error_generic(const std::string& detail)
        : _i18n_exception(make_msg(catalogue::libi18n_error_generic, detail)) {}
};

}  // namespace brenholt::monitoring_modules::libi18n

// A catch point: never thrown itself, only passes a message to its parent.
#define LIBI18N_CATCH_POINT(ATTR, NAME, PARENT, ...)                                     \
    class ATTR NAME : public ::brenholt::monitoring_modules::libi18n::_i18n_exception<PARENT> { \
    public:                                                                                \
        explicit NAME(::brenholt::monitoring_modules::libi18n::i18n_msg msg)               \
            : ::brenholt::monitoring_modules::libi18n::_i18n_exception<PARENT>(std::move(msg)) {} \
        __VA_ARGS__                                                                        \
    }

// A concrete class: its constructor takes exactly as many string arguments as the
// catalogue text has placeholders, checked at compile time.
#define LIBI18N_EXCEPTION(ATTR, NAME, PARENT, ENTRY, ...)                                  \
    class ATTR NAME : public ::brenholt::monitoring_modules::libi18n::_i18n_exception<PARENT> { \
    public:                                                                                \
        template <typename... A>                                                           \
        explicit NAME(const A&... a)                                                       \
            : ::brenholt::monitoring_modules::libi18n::_i18n_exception<PARENT>(            \
                  ::brenholt::monitoring_modules::libi18n::make_msg(ENTRY, a...)) {        \
            static_assert(sizeof...(A) == ENTRY##_args,                                    \
                          "argument count differs from the catalogue text");               \
        }                                                                                  \
        __VA_ARGS__                                                                        \
    }
