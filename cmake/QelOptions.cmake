# What every target of ours is compiled and linked with. Used privately: nothing here reaches a project that embeds us.

add_library(qel_options INTERFACE)

target_compile_options(qel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
                                             -Woverloaded-virtual -Wformat=2 -Werror=format-security)
if(QEL_WERROR)
  target_compile_options(qel_options INTERFACE -Werror)
endif()
# With full optimisation GCC 12 sees overlapping copies in "text" + string where there are none (its bug 105651).
target_compile_options(qel_options INTERFACE $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release>>:-Wno-restrict>)

# Hardening, of generated code, too: Debian's set (dpkg-buildflags hardening=+all) and three more.
add_library(qel_hardening INTERFACE)
target_compile_options(qel_hardening INTERFACE -fstack-protector-strong -fstack-clash-protection -fcf-protection)
target_compile_definitions(qel_hardening INTERFACE _GLIBCXX_ASSERTIONS)
target_link_libraries(qel_options INTERFACE qel_hardening)
# Link options of a static library reach whoever links it, also when they are private: leave that choice to embedders.
if(QEL_IS_TOP_LEVEL)
  target_link_options(qel_options INTERFACE -Wl,-z,relro -Wl,-z,now)
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

# Debug builds are optimised a little: fortification needs it, and the tests are several times faster.
set(CMAKE_CXX_FLAGS_DEBUG "-Og -g1")

if(QEL_SANITIZE)
  target_compile_options(qel_options INTERFACE -fsanitize=${QEL_SANITIZE} -fno-sanitize-recover=all
                                               -fno-omit-frame-pointer)
  target_link_options(qel_options INTERFACE -fsanitize=${QEL_SANITIZE})
  if(QEL_SANITIZE MATCHES "thread")
    # GCC warns that the thread sanitizer does not model fences, which Boost.Asio uses.
    target_compile_options(qel_options INTERFACE -Wno-tsan)
  endif()
else()
  # Fortified calls hide accesses from the sanitizers, so it is either the one or the other.
  target_compile_options(qel_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# Signed overflow aborts instead of wrapping.
add_library(qel_trapping INTERFACE)
target_compile_options(qel_trapping INTERFACE -ftrapv)

find_program(QEL_CCACHE ccache)
if(QEL_CCACHE AND QEL_IS_TOP_LEVEL)
  # What one clone has compiled serves the next: paths count from the clone's own folder.
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}"
                                  CCACHE_NOHASHDIR=true "${QEL_CCACHE}")
endif()
