/**
 * A log-structured block store whose only index are range maps:
 * {@link stor.device.store.BlockStore} is what to read and to copy from.
 */
package stor.device.store;
