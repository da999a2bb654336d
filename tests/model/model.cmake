# The protocol of locks explored by spin. A model that holds proves something only while its mutants are found and its
# witnesses are reached, so each of those is a test of its own. lock.pml, unlock.pml and replace.pml explain the names.

# zev_model_test(MODEL holds|violated NAME [definitions ...]): NAME tells it from the others of its model.
function(zev_model_test model expected name)
    set(test model_${model}_${name})
    add_test(NAME ${test} COMMAND ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/check ${model} ${expected} ${ARGN})
    set_tests_properties(${test} PROPERTIES LABELS model TIMEOUT 300 SKIP_RETURN_CODE 77)
endfunction()

# Sanitizers change nothing here: once, in a build without.
if(NOT ZEV_SANITIZE)
    set(small -DLOCKS=1)
    zev_model_test(lock holds two_readers ${small})
    zev_model_test(lock holds two_words -DPAGES=1 -DWORDS=2 -DSLOTS=3 -DFRAMES=4)
    zev_model_test(lock holds writer_dies -DPAGES=1 -DWORDS=2 -DWRITER_DIES)
    zev_model_test(lock holds waking ${small} -DFRAMES=2 -DWAKE)
    foreach(mutant W1_RELEASE R1_RELEASE W4_RELAXED LOOK_FIRST NO_R2 LIST_LATE NO_GRACE
            SEE_LOCKED SEE_REFUSED SEE_PASSED SEE_UNMAPPED)
        zev_model_test(lock violated ${mutant} -D${mutant})
    endforeach()
    zev_model_test(lock violated LOOK_REUSED -DPAGES=1 -DWORDS=2 -DSLOTS=3 -DFRAMES=5 -DLOCKS=3 -DLOOK_REUSED)
    zev_model_test(lock violated SCAN_RELEASE ${small} -DFRAMES=2 -DWAKE -DSCAN_RELEASE)
    zev_model_test(lock violated SEE_SURVIVED -DPAGES=1 -DWRITER_DIES -DSEE_SURVIVED)

    zev_model_test(unlock holds two_words)
    zev_model_test(unlock holds three_words -DWORDS=3)
    zev_model_test(unlock holds twice -DDOUBLE)
    foreach(mutant PLAIN_TAKE HELD_FIRST SEE_LOST_RACE SEE_FULL)
        zev_model_test(unlock violated ${mutant} -D${mutant})
    endforeach()
    zev_model_test(unlock violated PLAIN_TAKE_twice -DDOUBLE -DPLAIN_TAKE)

    set(cut -DFRAMES=3 -DLOCKS=1 -DNO_SUPPLY)
    set(supply -DREADERS=1 -DFRAMES=3 -DLOCKS=1 -DNO_CUT)
    zev_model_test(replace holds cut ${cut})
    zev_model_test(replace holds supply ${supply})
    zev_model_test(replace holds FREE_UNSEEN ${supply} -DFREE_UNSEEN)
    zev_model_test(replace holds both -DREADERS=1 -DFRAMES=3 -DLOCKS=1)
    foreach(mutant REVOKE_RELEASE COUNT_FIRST NO_POISON POISON_LATE POISON_LOOK_FIRST NO_REVOKED_LOOK
            SEE_CUT SEE_POISONED)
        zev_model_test(replace violated ${mutant} ${cut} -D${mutant})
    endforeach()
    foreach(mutant NO_MEMORY_LOOK SEE_FRESH SEE_UNKNOWN)
        zev_model_test(replace violated ${mutant} ${supply} -D${mutant})
    endforeach()
endif()

# What the deciding accesses become on a machine that reorders more than this one.
find_program(ZEV_AARCH64_CXX aarch64-linux-gnu-g++)
find_package(Python3 COMPONENTS Interpreter)
if(ZEV_AARCH64_CXX AND Python3_FOUND AND NOT ZEV_SANITIZE)
    set(accesses COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/aarch64_accesses.py ${PROJECT_SOURCE_DIR} ${ZEV_AARCH64_CXX})
    add_test(NAME model_aarch64_accesses ${accesses})
    add_test(NAME model_aarch64_accesses_relaxed ${accesses} --break)
    set_tests_properties(model_aarch64_accesses model_aarch64_accesses_relaxed PROPERTIES LABELS model TIMEOUT 120)
endif()

# The library once more, with its atomics and named steps in the hands of tests.
if(NOT TARGET shm_objects)
    return() # an installed libshm is used, whose sources are not here
endif()
get_target_property(stepped_sources shm_objects SOURCES)
list(TRANSFORM stepped_sources PREPEND ${PROJECT_SOURCE_DIR}/platform/shm/)
add_library(shm_stepped STATIC EXCLUDE_FROM_ALL ${stepped_sources} model/steps.cpp model/steps.h)
zev_target(shm_stepped)
target_include_directories(shm_stepped PUBLIC
    ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/platform/shm/include ${PROJECT_SOURCE_DIR}/platform/shm/src)
target_compile_definitions(shm_stepped PUBLIC SHM_TEST_ATOMIC="steps.h")
target_link_libraries(shm_stepped PUBLIC Threads::Threads)

# Sanitizers do not follow the stacks that it changes.
if(NOT ZEV_SANITIZE)
    zev_test(tst_shm_interleaved
        SOURCES model/tst_shm_interleaved.cpp model/interleaver.cpp model/interleaver.h
        LIBRARIES shm_stepped GTest::gtest LABEL model)
endif()
