# Read by ctest after the discovered tests are added: the model change test
# runs alone, as its walks must complete between rescans on a loaded machine
# (under ThreadSanitizer, beside other tests, none would).
set_tests_properties(AgentChange.WalksAndGetsDuringModelChangesEndOnlyInALockTimeOut
                     PROPERTIES RUN_SERIAL TRUE)
