package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.List;
import org.junit.jupiter.api.Test;

/** Worked examples, since a model that shared a mistake with the map would not show it. */
class RangeModelTest {
    private final RangeModel model = new RangeModel(512);

    @Test
    void aRangeInTheMiddleLeavesTwoPieces() {
        insert(0, 2000, file(3, 0, 1));
        insert(600, 100, file(4, 0, 1));
        assertRanges(range(0, 600, file(3, 0, 1)), range(600, 100, file(4, 0, 1)),
                range(700, 1300, file(3, 708, 1)));
        assertCounters(2000, 2100, 2);
    }

    @Test
    void aRangeThatJoinsItsNeighboursTakesTheLeftLocation() {
        insert(0, 1024, file(3, 0, 1));
        insert(2048, 512, file(3, 2080, 1));
        insert(1024, 1024, file(3, 1040, 1));
        assertRanges(range(0, 2560, file(3, 0, 1)));
        assertCounters(2560, 2560, 3);
    }

    @Test
    void theGapClosedBesideARemainderIsNotCounted() {
        insert(0, 10, file(3, 0, 1));
        insert(20, 10, file(4, 0, 1));
        insert(0, 25, file(5, 0, 1));
        assertRanges(range(0, 25, file(5, 0, 1)), range(25, 5, file(4, 5, 1)));
        assertCounters(20, 45, 3);
    }

    @Test
    void emptyRangesJoinWhateverTheirNumber() {
        insert(0, 10, file(3, -1, -1));
        insert(10, 10, new Location(false, (byte) 4, -1, -1, -1));
        assertEquals(1, model.size());
        insert(20, 10, file(3, -1, 0));
        assertEquals(2, model.size());
    }

    @Test
    void compareAndSetRedirectsTheCoveredPartOfWhatIsStillThere() {
        insert(0, 1024, file(3, 0, 1));
        assertFalse(model.compareAndSet(range(512, 256, file(3, 8, 1)), file(7, 0, 5)));
        assertTrue(model.compareAndSet(range(512, 256, file(3, 520, 1)), file(7, 0, 5)));
        assertRanges(range(0, 512, file(3, 0, 1)), range(512, 256, file(7, 0, 5)),
                range(768, 256, file(3, 776, 1)));
    }

    @Test
    void compareAndReleaseTakesWholeRangesOnly() {
        model.insert(new Range(0, 1024, file(3, 0, 1).withType(true), 9));
        assertEquals(0, model.compareAndRelease(range(0, 512, file(3, 0, 1))));
        assertEquals(1024, model.compareAndRelease(range(0, 2048, file(3, 0, 1))));
        assertEquals(0, model.compareAndRelease(range(0, 2048, file(3, 0, 1))));
    }

    @Test
    void lengthsBeyond31BitsAreNotJoined() {
        int most = Integer.MAX_VALUE;
        RangeModel bytes = new RangeModel(most);
        bytes.insert(range(0, most, file(3, 0, 1)));
        bytes.insert(range(most, 1, file(3, most, 1).plus(0, most)));
        assertEquals(2, bytes.size());
    }

    private void insert(long start, int length, Location at) {
        model.insert(range(start, length, at));
    }

    private void assertRanges(Range... expected) {
        assertEquals(List.of(expected), model.ranges());
    }

    private void assertCounters(long validLen, long rawLen, int rawCount) {
        assertEquals(List.of(validLen, rawLen, (long) rawCount),
                List.of(model.validLen(), model.rawLen(), (long) model.rawCount()));
    }

    private static Range range(long start, int length, Location at) {
        return new Range(start, length, at, Range.NO_BUFFER);
    }

    private static Location file(int number, int offset, int version) {
        return new Location(false, (byte) number, offset, version, version);
    }
}
