# ---- Devices and recordings, on the doubles ----

# The steady clock is the test's own; see test_clock.h.
function(add_recording_test name)
  add_gtest(${name} ${ARGN} test_clock.cpp)
  target_link_libraries(${name} PRIVATE wrapper_audio_recorder_objects wrapper_audio_faked
    fake_sound_server PkgConfig::SOXR)
  # Options are given by name, and the rest is zero.
  target_compile_options(${name} PRIVATE -Wno-missing-field-initializers)
  target_link_options(${name} PRIVATE
    -Wl,--wrap=_ZNSt6chrono3_V212steady_clock3nowEv,--wrap=pthread_cond_clockwait,--wrap=pthread_mutex_clocklock)
endfunction()

add_recording_test(recorder_devices
  device_list_test.cpp opening_test.cpp recording_arguments_test.cpp refusals_test.cpp server_sources_test.cpp)
add_recording_test(recorder_reading reading_test.cpp hanging_test.cpp late_host_test.cpp recorded_speech_test.cpp
  both_outputs_test.cpp signal_test.cpp aligned_reading_test.cpp reconnect_test.cpp)
add_recording_test(recorder_threads threads_test.cpp)

# Its allocations and its new threads fail as the test tells them to; see failing_memory.h.
add_recording_test(recorder_faults faults_test.cpp failing_memory.cpp)
target_link_options(recorder_faults PRIVATE
  -Wl,--wrap=soxr_create,--wrap=soxr_process,--wrap=fopencookie,--wrap=newlocale
  -Wl,--wrap=_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE)
