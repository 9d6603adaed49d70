# Compile options shared by every target of the project.
set(KEL_WARNINGS -Wall -Wextra -Werror)

if(KEL_SANITIZE)
  set(KEL_SAN_FLAGS -fsanitize=${KEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_compile_options(${KEL_SAN_FLAGS})
  add_link_options(${KEL_SAN_FLAGS})
endif()

# Our own code: warnings are errors, symbols hidden unless marked KEL_API.
function(kel_target_options target)
  target_compile_options(${target} PRIVATE ${KEL_WARNINGS})
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
