package stor.device.skiplist;

/** What {@link OffHeapRangeMap#save} does with ranges that hold a buffer, which no file can keep. */
public enum BufferedRanges {
    /** Refuses to save the map. */
    REFUSE,
    /** Saves their locations: what is loaded are ranges of file type without buffer. */
    KEEP_LOCATION
}
