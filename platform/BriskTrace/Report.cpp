#include "BriskTrace/Report.h"

#include "BriskTrace/MsgDesc.h"

namespace BriskTrace {

void Impl::describe(TraceFile& traceFile, Site& site, std::string_view className,
                    std::string_view function, std::string_view format,
                    std::initializer_list<const char*> letters) {
  MsgDesc desc(traceFile, &site.id, site.file, site.line);
  for (const char* letter : letters) {
    desc.formatString().put(letter);
  }
  msgDesc(desc, className, function, format);
  desc.finish();
}

}  // namespace BriskTrace
