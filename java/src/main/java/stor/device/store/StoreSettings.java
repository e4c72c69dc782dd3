package stor.device.store;

/**
 * What a {@link BlockStore} is made with.
 *
 * @param sectorSize the bytes of a sector: 512 or 4096
 * @param segmentBytes how long a segment file may grow; at least one sector with its trailer
 * @param bufferBytes how many bytes may be accepted before a write flushes
 * @param memoryLimit how many bytes the library's records of this store may take
 * @param height the levels of a map; 12 serve 16 million ranges
 */
public record StoreSettings(
        int sectorSize, int segmentBytes, long bufferBytes, long memoryLimit, int height) {
    /**
     * Checks the settings.
     *
     * @param sectorSize the bytes of a sector: 512 or 4096
     * @param segmentBytes how long a segment file may grow; at least one sector with its trailer
     * @param bufferBytes how many bytes may be accepted before a write flushes; at least a sector
     * @param memoryLimit how many bytes the library's records of this store may take; at least 1
     * @param height the levels of a map, 1 to 64
     * @throws IllegalArgumentException naming the first that is out of bounds
     */
    public StoreSettings {
        require("sector size", sectorSize, sectorSize == 512 || sectorSize == 4096, "512 or 4096");
        int frame = sectorSize + Frames.TRAILER_BYTES;
        require("segment size", segmentBytes, segmentBytes >= frame, ">= " + frame);
        require("buffer size", bufferBytes, bufferBytes >= sectorSize, ">= " + sectorSize);
        require("memory limit", memoryLimit, memoryLimit > 0, "> 0");
        require("height", height, height >= 1 && height <= 64, "1 to 64");
    }

    private static void require(String name, long value, boolean holds, String expected) {
        if (!holds) {
            throw new IllegalArgumentException(
                    name + ": " + value + " (expected: " + expected + ")");
        }
    }
}
