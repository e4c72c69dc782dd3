package stor.device.replay;

import java.text.FieldPosition;
import java.text.NumberFormat;
import java.text.ParsePosition;
import java.util.Locale;

/** Writes numbers in few digits: 1234567 is 1.23M, or in bytes 1.18 MiB. */
final class ShortNumbers {
    private static final String[] UNITS = {"", "k", "M", "G", "T"};
    private static final String[] BYTE_UNITS = {" B", " KiB", " MiB", " GiB", " TiB"};

    private ShortNumbers() {
    }

    static String shorten(double value) {
        return shorten(value, 1000, UNITS);
    }

    static String shortenBytes(double value) {
        return shorten(value, 1024, BYTE_UNITS);
    }

    /** Gives the format for the labels of an axis. */
    static NumberFormat format(boolean bytes) {
        return new NumberFormat() {
            private static final long serialVersionUID = 1L;

            @Override
            public StringBuffer format(double value, StringBuffer to, FieldPosition position) {
                return to.append(bytes ? shortenBytes(value) : shorten(value));
            }

            @Override
            public StringBuffer format(long value, StringBuffer to, FieldPosition position) {
                return format((double) value, to, position);
            }

            @Override
            public Number parse(String text, ParsePosition position) {
                throw new UnsupportedOperationException("parse");
            }
        };
    }

    private static String shorten(double value, int step, String[] units) {
        double left = value;
        int unit = 0;
        while (Math.abs(left) >= step && unit < units.length - 1) {
            left /= step;
            unit++;
        }
        String format = left >= 100 ? "%.0f" : left >= 10 ? "%.1f" : "%.2f";
        String text = String.format(Locale.ROOT, format, left);
        return (text.contains(".") ? text.replaceAll("\\.?0+$", "") : text) + units[unit];
    }
}
