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
 * Threads: any. Errors: a server that does not answer is no server; without the library all is false.
 * Cost: a connection to the server, a few milliseconds when it is well; else at most a quarter of a second to
 * connect, and another one for hasSink() and lacks() to be answered.
 */
namespace soundserver {

/*! True for the devices of the PulseAudio backend, which lists one without a name when it has none. */
bool isItsDevice(const QAudioDeviceInfo &device);
bool isAnswering();
/*! True when there is something to play on. */
bool hasSink();
/*! True when the server says that it has no such sink. */
bool lacks(const QAudioDeviceInfo &device);

} // namespace soundserver

#endif
