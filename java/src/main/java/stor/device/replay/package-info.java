/**
 * A log-structured block store whose only index are range maps, and a program that replays block
 * traces through it and checks every byte.
 *
 * <p>{@link stor.device.replay.BlockStore} is what to read and to copy from;
 * {@link stor.device.replay.TraceReplay} is the program.
 */
package stor.device.replay;
