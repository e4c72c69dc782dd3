/**
 * Replays recorded block traces through the native range maps and checks every answer.
 *
 * <p>{@link stor.device.replay.CheckedMap} keeps a native map and a
 * {@link stor.device.replay.RangeModel} in step: each operation runs on both, and all that the
 * native side hands out is compared. The replay and the tests share these two classes, so that
 * there is one statement in Java of what a map does. Nothing in this package is safe for use by
 * several threads at once.
 */
package stor.device.replay;
