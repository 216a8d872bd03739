#include "wide_text.hpp"

#include "running_library.hpp"

namespace catalog {

WideText::WideText(refhost::Host &host) : host_(host) {
  check(host_, "MEM_CatOpen", host_.vector().MEM_CatOpen(&buffer_));
}

WideText::~WideText() {
  host_.vector().MEM_CatClose(&buffer_);
}

void WideText::append(const char16_t *text) {
  check(host_, "MEM_Cat", host_.vector().MEM_Cat(&buffer_, text));
}

}  // namespace catalog
