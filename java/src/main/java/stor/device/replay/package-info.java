/**
 * A program that replays block traces through a {@link stor.device.store.BlockStore} and checks
 * every byte: {@link stor.device.replay.TraceReplay}.
 */
package stor.device.replay;
