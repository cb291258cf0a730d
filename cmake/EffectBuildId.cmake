# Writes OUTPUT, a header that defines VT_EFFECT_BUILD_ID: the first 16 hex digits of a SHA-256
# over the effect's sources (effect/, common/, sdk/ under ROOT, by path and content). The
# plug-in and the tool's linked copy of the effect's code carry it, and the tool refuses a
# plug-in that carries another (cli/session/EffectSession.cpp). The file is rewritten only when the value
# changes, so that an unchanged effect recompiles nothing.
file(GLOB_RECURSE files RELATIVE ${ROOT}
     ${ROOT}/effect/*.cpp ${ROOT}/effect/*.h ${ROOT}/common/*.h ${ROOT}/sdk/*.h)
list(SORT files)
set(all "")
foreach(f ${files})
  file(SHA256 ${ROOT}/${f} digest)
  string(APPEND all "${f} ${digest}\n")
endforeach()
string(SHA256 id "${all}")
string(SUBSTRING ${id} 0 16 id)
set(text "#define VT_EFFECT_BUILD_ID \"${id}\"\n")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
  if(old STREQUAL text)
    return()
  endif()
endif()
file(WRITE ${OUTPUT} "${text}")
