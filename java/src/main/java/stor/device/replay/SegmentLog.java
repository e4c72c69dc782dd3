package stor.device.replay;

/**
 * Hands out places in files, one after another, as a log-structured store does: what is written in
 * sequence lies in sequence. Files are filled up to a fixed size and then reused in turn under the
 * next major version.
 */
final class SegmentLog {
    private static final int SEGMENT_BYTES = 1 << 26;
    private static final int FILES = 256;

    private final int sectorSize;
    private int number;
    private int offset;
    private int generation = 1;

    SegmentLog(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    /** Gives the place for this many bytes. */
    Location append(int length) {
        long span = Location.fileDistance(length, sectorSize);
        if (offset + span > SEGMENT_BYTES) {
            startNextFile();
        }
        Location place = new Location(false, (byte) number, offset, generation, 0);
        offset = Math.toIntExact(offset + span);
        return place;
    }

    private void startNextFile() {
        offset = 0;
        number = (number + 1) % FILES;
        if (number == 0) {
            generation++;
        }
    }
}
