# SPDX-License-Identifier: GPL-3.0-or-later
# Fails when a file of the engine or of the application core includes a Qt header.
file(GLOB_RECURSE _files ${ROOT}/TrelvaneEngine/* ${ROOT}/Trelvane/session/* ${ROOT}/Trelvane/export/*
     ${ROOT}/Trelvane/cli/*)
foreach(_f IN LISTS _files)
  file(STRINGS ${_f} _hits REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"](Q[A-Za-z]|qt)")
  if(_hits)
    message(FATAL_ERROR "Qt header included outside Trelvane/ui/: ${_f}: ${_hits}")
  endif()
endforeach()
