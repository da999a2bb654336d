#ifndef ZEVQTMM_SOUNDSERVER_H
#define ZEVQTMM_SOUNDSERVER_H

class QAudioDeviceInfo;

/*!
 * What only the sound server itself knows, where Qt's PulseAudio backend is in use: the backend keeps devices
 * in its list that are gone, and waits for ever for an output on one of them.
 *
 * The client library is looked up at run time: it is loaded by Qt's plugin, or by nobody, and linking to it
 * would bind everybody else to it.
 *
 * Threads: any; each knows for itself that the server is silent.
 * Errors: without the library there is no server.
 * Cost: a connection to the server, a few milliseconds when it is well. A server that is silent (it was
 * stopped, or hangs) takes a second once; from then on a look takes no time until it speaks.
 */
namespace soundserver {

/*! True for the devices of the PulseAudio backend, which lists one without a name when it has none. */
bool isItsDevice(const QAudioDeviceInfo &device);
/*! True when Qt has the plugin of that backend, which waits for the server as soon as it is loaded. */
bool isUsed();

enum class State {
    There,    // the server has it
    Gone,     // the server says that it has no such sink
    NoServer, // there is none, or it takes no connection
    Silent,   // it takes connections and does not answer: Qt would wait for it without end
};
/*! There for the devices of other backends. */
State stateOf(const QAudioDeviceInfo &device);
/*! False where the backend is not in use. */
bool isSilent();
bool isAnswering();
/*! True when there is something to play on. */
bool hasSink();

} // namespace soundserver

#endif
