# One warning set for every target of the project, so a warning in a tool is as loud as one in
# the library.
add_library(kelr_warnings INTERFACE)
target_compile_options(kelr_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                               -Wno-missing-field-initializers)
if(KELR_WERROR)
  target_compile_options(kelr_warnings INTERFACE -Werror)
endif()
