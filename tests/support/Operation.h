// A call of the library that a test holds together with its arguments, to make it any number of times.
#ifndef OPERATION_H
#define OPERATION_H

#include <Expectations.h>
#include <vesk/netlink.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

namespace Vesk::Testing {

// What a call returned: a number, or what it found. It allocates nothing, so that it leaves no block behind.
struct Result {
    Result(int status) : Result("%d", status) {}
    Result(const char* found) : Result("%s", found) {}
    Result(const std::string& found) : Result(found.c_str()) {}
    Result(const RouterAddressResult& r) : Result("%s%s%d", r.gateway.c_str(), r.gateway.empty() ? "" : " ", r.status)
    {}
    Result(const std::optional<std::pair<unsigned, unsigned>>& rule) : Result(-1)
    {
        if (rule)
            *this = Result("0x%x/0x%x", rule->first, rule->second);
    }
    char text[64];

private:
    template <typename... Parts>
    Result(const char* format, Parts... parts)
    {
        if (std::snprintf(text, sizeof text, format, parts...) >= static_cast<int>(sizeof text))
            throw std::length_error("a result is cut off: " + std::string(text));
    }
};

// An argument as it is held between calls.
template <typename Parameter>
struct Held {
    using Value = std::remove_cvref_t<Parameter>;
    explicit Held(const auto& argument, std::size_t place = 0) : value(static_cast<Value>(argument))
    {
        static_assert(!std::is_floating_point_v<std::remove_cvref_t<decltype(argument)>>);
        if constexpr (std::is_integral_v<Value> && !std::is_same_v<Value, bool>)
            if (!std::in_range<Value>(+argument))
                throw std::out_of_range("argument " + std::to_string(place + 1) + ", which has " +
                                        std::to_string(sizeof(Value)) + " bytes, cannot hold " +
                                        std::to_string(argument));
    }
    auto& pass() { return value; }
    Value value;
};
template <>
struct Held<sockaddr_storage*> {
    explicit Held(const char* text, std::size_t = 0) : value(socketAddress(text)) {}
    auto* pass() { return &value; }
    sockaddr_storage value;
};

// A lambda, or an exported operation with its arguments, as in {addrlabelAdd, "fe80::1", 64, 7, 3}.
struct Operation : std::function<Result()> {
    using function::function;
    template <typename Returned, typename... Parameters>
    Operation(Returned (*operation)(Parameters...), const auto&... arguments)
        : Operation([&]<std::size_t... places>(std::index_sequence<places...>) {
              return holding(operation, std::tuple(Held<Parameters>(arguments, places)...));
          }(std::index_sequence_for<Parameters...>()))
    {}

    template <typename Returned, typename... Parameters>
    static Operation holding(Returned (*operation)(Parameters...), std::tuple<Held<Parameters>...> arguments)
    {
        return [operation, all = std::move(arguments)]() mutable {
            return std::apply([&](auto&... each) { return Result(operation(each.pass()...)); }, all);
        };
    }
};

} // namespace Vesk::Testing

#endif
