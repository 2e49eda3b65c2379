# Picks the file that implements composition and case for Unicode.h: utf8proc where it is found, ICU otherwise, and with
# neither of them one that leaves names as they are stored.
find_path(UTF8PROC_INCLUDE_DIR utf8proc.h)
find_library(UTF8PROC_LIBRARY utf8proc)
mark_as_advanced(UTF8PROC_INCLUDE_DIR UTF8PROC_LIBRARY)

if(UTF8PROC_INCLUDE_DIR AND UTF8PROC_LIBRARY)
    message(STATUS "Unicode: utf8proc")
    target_sources(VintrelCore PRIVATE Foundation/Unicode/UTF8Proc.cpp)
    target_include_directories(VintrelCore SYSTEM PRIVATE "${UTF8PROC_INCLUDE_DIR}")
    # Whoever links the installed library finds it by its name.
    target_link_libraries(VintrelCore PRIVATE "$<BUILD_INTERFACE:${UTF8PROC_LIBRARY}>" $<INSTALL_INTERFACE:utf8proc>)
else()
    find_package(ICU QUIET COMPONENTS uc)
    if(ICU_FOUND)
        message(STATUS "Unicode: ICU ${ICU_VERSION}")
        target_sources(VintrelCore PRIVATE Foundation/Unicode/ICU.cpp)
        target_link_libraries(VintrelCore PRIVATE ICU::uc)
    else()
        message(WARNING "Neither utf8proc nor ICU was found: names keep the form in which the disk stores them, and "
                        "only ASCII letters sort without regard to case (script/bootstrap installs utf8proc)")
        target_sources(VintrelCore PRIVATE Foundation/Unicode/Plain.cpp)
    endif()
endif()
