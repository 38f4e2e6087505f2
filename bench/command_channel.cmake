# Latency of the collector command channel, from the controller library's
# send to the tool's callback.
if(TARGET kyrt_controller)
  kyrt_add_benchmark(kyrt_command_channel_bench command_channel_bench.cpp)
  target_link_libraries(kyrt_command_channel_bench PRIVATE kyrt_controller)
endif()
