package stor.device.store;

import java.util.List;

/**
 * What a {@link BlockStore} holds and has done.
 *
 * @param memoryRanges the ranges in the memory maps
 * @param fileRanges the ranges in the file map
 * @param ranges the ranges in all maps, those of snapshots included
 * @param bufferedBytes the bytes accepted and not yet written out
 * @param recordBytes the library's records of all maps, snapshots included, by the store's count
 * @param sweptBytes the same as the library counted when it last swept, all maps of the process
 * @param segments the segment files
 * @param refusedInserts the inserts that were refused for want of native memory
 * @param flushes the flushes that had something to write and came to their end
 * @param flushedBytes the bytes written out
 * @param movedBytes the bytes that compaction redirected
 * @param freedSegments the segments that compaction retired
 * @param fileBytes the bytes of all segment files, with the trailers of sectors
 * @param appendedBytes the bytes that flushes and compactions have ever appended to segment files
 * @param journalBytes the bytes of the journal, its checkpoint included
 * @param damagedSectors the offsets of the sectors that were found unreadable
 * @param peaks the most of each at any time
 */
public record StoreStats(int memoryRanges, int fileRanges, int ranges, long bufferedBytes,
        long recordBytes, long sweptBytes, int segments, long refusedInserts,
        long flushes, long flushedBytes, long movedBytes, int freedSegments, long fileBytes,
        long appendedBytes, long journalBytes, List<Long> damagedSectors, StorePeaks peaks) {
    /** The library's records of a range, in bytes. */
    public static final int RANGE_BYTES = 104;
    /** The library's record of the buffer that a range may hold, in bytes. */
    public static final int BUFFER_BYTES = 32;
}
