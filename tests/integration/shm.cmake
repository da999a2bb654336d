# The frame store under stress, with real processes.
zev_test(shm_torture SOURCES integration/shm_torture.cpp LIBRARIES shm_testable LABEL integration)
