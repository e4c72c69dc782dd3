/**
 * A log-structured block store whose only index are range maps, and a program that replays block
 * traces through it and checks every byte.
 *
 * <p>{@link stor.device.replay.BlockStore} is what to read and to copy from;
 * {@link stor.device.replay.TraceReplay} is the program.
 *
 * <p>{@link stor.device.replay.CheckedMap} keeps a native map and a
 * {@link stor.device.replay.RangeModel} in step for the tests of the native side: each operation
 * runs on both, and all that the native side hands out is compared. These two are not safe for use
 * by several threads at once.
 */
package stor.device.replay;
