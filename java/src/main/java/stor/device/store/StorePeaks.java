package stor.device.store;

/**
 * The most that a {@link BlockStore} held at any time. Counted after every change, so nothing that
 * comes and goes between two calls of {@link BlockStore#stats} is missed.
 *
 * @param memoryRanges the ranges in the memory maps
 * @param fileRanges the ranges in the file map
 * @param ranges the ranges in all maps, those of snapshots included
 * @param bufferedBytes the bytes accepted and not yet written out
 * @param recordBytes the library's records of all maps, snapshots included
 * @param segments the segment files
 * @param fileBytes the bytes of all segment files
 */
public record StorePeaks(int memoryRanges, int fileRanges, int ranges, long bufferedBytes,
        long recordBytes, int segments, long fileBytes) {
    /** Gives the larger of each figure. */
    StorePeaks and(int memoryRanges, int fileRanges, int ranges, long bufferedBytes,
            long recordBytes, int segments, long fileBytes) {
        return new StorePeaks(Math.max(this.memoryRanges, memoryRanges),
                Math.max(this.fileRanges, fileRanges), Math.max(this.ranges, ranges),
                Math.max(this.bufferedBytes, bufferedBytes),
                Math.max(this.recordBytes, recordBytes), Math.max(this.segments, segments),
                Math.max(this.fileBytes, fileBytes));
    }
}
