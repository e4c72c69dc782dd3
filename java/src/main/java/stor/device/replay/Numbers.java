package stor.device.replay;

import java.text.FieldPosition;
import java.text.NumberFormat;
import java.text.ParsePosition;
import java.util.Locale;

/** Writes numbers so that people can read them. */
final class Numbers {
    private static final String UNITS = "kMGT";

    private Numbers() {
    }

    /** Writes 1234567 as 1.23M. */
    static String shorten(double value) {
        double left = value;
        int unit = -1;
        while (Math.abs(left) >= 1000 && unit < UNITS.length() - 1) {
            left /= 1000;
            unit++;
        }
        String format = left >= 100 ? "%.0f" : left >= 10 ? "%.1f" : "%.2f";
        String text = String.format(Locale.ROOT, format, left);
        String digits = text.contains(".") ? text.replaceAll("\\.?0+$", "") : text;
        return unit < 0 ? digits : digits + UNITS.charAt(unit);
    }

    /** The same for the labels of an axis. */
    static NumberFormat shortFormat() {
        return new NumberFormat() {
            private static final long serialVersionUID = 1L;

            @Override
            public StringBuffer format(double value, StringBuffer to, FieldPosition position) {
                return to.append(shorten(value));
            }

            @Override
            public StringBuffer format(long value, StringBuffer to, FieldPosition position) {
                return to.append(shorten(value));
            }

            @Override
            public Number parse(String text, ParsePosition position) {
                throw new UnsupportedOperationException("parse");
            }
        };
    }
}
