# SPDX-License-Identifier: GPL-3.0-or-later
# Fails when a file includes what its layer must not see:
#   - Qt, anywhere but Trelvane/ui/;
#   - the application (Trelvane/), anywhere in the engine;
#   - any engine stage, in the model and the support helpers every stage builds on;
#   - the features, in the media layer that decodes for them;
#   - the session (its controller and notifier), in the exporters, which hand their results back.
function(_forbid folders pattern why)
  foreach(_folder IN LISTS folders)
    file(GLOB_RECURSE _files ${ROOT}/${_folder}/*)
    foreach(_f IN LISTS _files)
      file(STRINGS ${_f} _hits REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]${pattern}")
      if(_hits)
        message(FATAL_ERROR "${why}: ${_f}: ${_hits}")
      endif()
    endforeach()
  endforeach()
endfunction()

_forbid("TrelvaneEngine;Trelvane/session;Trelvane/export;Trelvane/cli" "(Q[A-Za-z]|qt)"
        "Qt header included outside Trelvane/ui/")
_forbid("TrelvaneEngine" "Trelvane/" "The engine includes the application")
_forbid("TrelvaneEngine/model;TrelvaneEngine/support" "TrelvaneEngine/(media|features|ingest|sync|stacks)/"
        "The model or the support helpers include an engine stage")
_forbid("TrelvaneEngine/media" "TrelvaneEngine/features/" "The media layer includes the features")
_forbid("Trelvane/export" "Trelvane/session/" "The exporters include the session")
