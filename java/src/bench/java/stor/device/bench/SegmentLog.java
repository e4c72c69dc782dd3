package stor.device.bench;

import stor.device.skiplist.FileLocation;

/**
 * Hands out places one after another, as a log-structured store does: what is written in sequence
 * lies in sequence. Files are filled in turn, and used again under the next major version.
 */
final class SegmentLog {
    private static final int FILE_BYTES = 1 << 30;
    private static final int FILES = 256;

    private final int sectorSize;
    private int number;
    private int end;
    private int majorVer = 1;

    SegmentLog(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    FileLocation append(int length) {
        int span = (int) Workloads.fileDistance(length, sectorSize);
        if (end > FILE_BYTES - span) {
            startNextFile();
        }
        FileLocation place = new FileLocation(number, end, majorVer, 0);
        end += span;
        return place;
    }

    /** As above, with a sector left free behind it, so that no other place continues this one. */
    FileLocation appendApart(int length) {
        return append(length + sectorSize);
    }

    private void startNextFile() {
        end = 0;
        if (number++ == FILES - 1) {
            number = 0;
            majorVer++;
        }
    }
}
