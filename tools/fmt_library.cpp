// The part of fmt that is not in its headers, compiled once: Debian has fmt as a library for Linux
// only.
#include <fmt/format-inl.h>

FMT_BEGIN_NAMESPACE
namespace detail {

template FMT_API auto thousands_sep_impl<char>(locale_ref) -> thousands_sep_result<char>;
template FMT_API auto decimal_point_impl<char>(locale_ref) -> char;

}  // namespace detail
FMT_END_NAMESPACE
