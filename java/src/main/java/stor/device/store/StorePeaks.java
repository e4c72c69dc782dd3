package stor.device.store;

/**
 * The most that a {@link BlockStore} held at any time, each by itself. Counted after every change,
 * so nothing that comes and goes between two calls of {@link BlockStore#stats} is missed.
 *
 * @param memoryRanges the ranges in the memory maps
 * @param fileRanges the ranges in the file map
 * @param bufferedBytes the bytes accepted and not yet written out
 * @param recordBytes the library's records of all maps, snapshots included
 * @param ranges the ranges of all maps at that moment
 * @param segments the segment files
 * @param fileBytes the bytes of all segment files
 */
public record StorePeaks(int memoryRanges, int fileRanges, long bufferedBytes,
        long recordBytes, int ranges, int segments, long fileBytes) {
    /** Gives the larger of each figure, and the ranges that belong to the larger records. */
    StorePeaks and(int memoryRanges, int fileRanges, long bufferedBytes,
            long recordBytes, int ranges, int segments, long fileBytes) {
        return new StorePeaks(Math.max(this.memoryRanges, memoryRanges),
                Math.max(this.fileRanges, fileRanges), Math.max(this.bufferedBytes, bufferedBytes),
                Math.max(this.recordBytes, recordBytes),
                recordBytes > this.recordBytes ? ranges : this.ranges,
                Math.max(this.segments, segments), Math.max(this.fileBytes, fileBytes));
    }
}
