// Stands where PortAudio expects the JACK library, in installs that carry PortAudio with them. A JACK client only gets on
// with the library that came with its server, so none is carried: each call is passed on to the system's library. Where
// there is none, PortAudio finds no server to connect to, and asks no more.
#include <dlfcn.h>
#include <jack/jack.h>

namespace {

template <typename Function>
Function* find(void* library, const char* name) {
    return library ? reinterpret_cast<Function*>(dlsym(library, name)) : nullptr;
}

void* const library = dlopen("libjack.so.0", RTLD_NOW | RTLD_LOCAL);

using text = const char*;
using client = jack_client_t*;
using port = jack_port_t*;
using frames = jack_nframes_t;

} // namespace

// Nothing else makes a function of a name.
#define PASS_ON(result, name, parameters, arguments)                                                                   \
    static const auto system_##name = find<decltype(name)>(library, #name);                                            \
    result name parameters {                                                                                           \
        return system_##name ? system_##name arguments : static_cast<result>(0);                                       \
    }

PASS_ON(client, jack_client_open, (text name, jack_options_t options, jack_status_t* status, ...),
        (name, options, status))
PASS_ON(int, jack_client_close, (client self), (self))
PASS_ON(int, jack_client_name_size, (), ())
PASS_ON(char*, jack_get_client_name, (client self), (self))
PASS_ON(int, jack_activate, (client self), (self))
PASS_ON(int, jack_deactivate, (client self), (self))
PASS_ON(void, jack_set_error_function, (void (*function)(text)), (function))
PASS_ON(int, jack_set_process_callback, (client self, JackProcessCallback function, void* data), (self, function, data))
PASS_ON(int, jack_set_sample_rate_callback, (client self, JackSampleRateCallback function, void* data),
        (self, function, data))
PASS_ON(int, jack_set_xrun_callback, (client self, JackXRunCallback function, void* data), (self, function, data))
PASS_ON(void, jack_on_shutdown, (client self, JackShutdownCallback function, void* data), (self, function, data))
PASS_ON(frames, jack_get_sample_rate, (client self), (self))
PASS_ON(frames, jack_get_buffer_size, (client self), (self))
PASS_ON(frames, jack_frame_time, (const jack_client_t* self), (self))
PASS_ON(text*, jack_get_ports, (client self, text name, text type, unsigned long flags), (self, name, type, flags))
PASS_ON(int, jack_connect, (client self, text from, text to), (self, from, to))
PASS_ON(port, jack_port_register, (client self, text name, text type, unsigned long flags, unsigned long size),
        (self, name, type, flags, size))
PASS_ON(int, jack_port_unregister, (client self, port which), (self, which))
PASS_ON(port, jack_port_by_name, (client self, text name), (self, name))
PASS_ON(int, jack_port_name_size, (), ())
PASS_ON(text, jack_port_name, (const jack_port_t* which), (which))
PASS_ON(int, jack_port_connected, (const jack_port_t* which), (which))
PASS_ON(int, jack_port_disconnect, (client self, port which), (self, which))
PASS_ON(void*, jack_port_get_buffer, (port which, frames count), (which, count))
PASS_ON(frames, jack_port_get_latency, (port which), (which))
