//! Today's date and time for templates that print them, written the way
//! Python's `strftime` writes them (the models' own tooling is Python).

use std::time::{SystemTime, UNIX_EPOCH};

const MONTHS: [&str; 12] = [
    "January",
    "February",
    "March",
    "April",
    "May",
    "June",
    "July",
    "August",
    "September",
    "October",
    "November",
    "December",
];
const WEEKDAYS: [&str; 7] = [
    "Sunday",
    "Monday",
    "Tuesday",
    "Wednesday",
    "Thursday",
    "Friday",
    "Saturday",
];

/// A local date and time of day.
#[derive(Debug, Clone, Copy, PartialEq, Eq)]
pub(super) struct Moment {
    year: i64,
    /// 1 to 12.
    month: u32,
    day: u32,
    hour: u32,
    minute: u32,
    second: u32,
    /// 0 is Sunday.
    weekday: u32,
    /// 1 to 366.
    year_day: u32,
}

impl Moment {
    /// Now, in the machine's time zone.
    pub(super) fn now() -> Moment {
        let seconds = SystemTime::now()
            .duration_since(UNIX_EPOCH)
            .map(|d| d.as_secs() as i64)
            .unwrap_or(0);
        Moment::at(seconds + local_offset(seconds))
    }

    /// The moment `seconds` after 1970-01-01 00:00 on a local clock.
    pub(super) fn at(seconds: i64) -> Moment {
        let days = seconds.div_euclid(86_400);
        let of_day = seconds.rem_euclid(86_400) as u32;
        let (year, month, day) = civil_from_days(days);
        Moment {
            year,
            month,
            day,
            hour: of_day / 3600,
            minute: of_day / 60 % 60,
            second: of_day % 60,
            // 1970-01-01 was a Thursday.
            weekday: (days + 4).rem_euclid(7) as u32,
            year_day: (days - days_from_civil(year, 1, 1) + 1) as u32,
        }
    }
}

/// Seconds the local clock is ahead of UTC at `seconds`.
#[cfg(unix)]
fn local_offset(seconds: i64) -> i64 {
    let time = seconds as libc::time_t;
    // SAFETY: `tm` is plain data (numbers and one pointer); all zeroes is a
    // valid value, and localtime_r overwrites it.
    let mut tm: libc::tm = unsafe { std::mem::zeroed() };
    // SAFETY: both pointers are to live locals for the duration of the
    // call; localtime_r is the thread-safe form and keeps no reference.
    let converted = unsafe { libc::localtime_r(&time, &mut tm) };
    if converted.is_null() {
        0
    } else {
        tm.tm_gmtoff as i64
    }
}

#[cfg(not(unix))]
fn local_offset(_seconds: i64) -> i64 {
    0
}

/// Year, month and day of the day `z` days after 1970-01-01.
pub(super) fn civil_from_days(z: i64) -> (i64, u32, u32) {
    let z = z + 719_468;
    let era = z.div_euclid(146_097);
    let doe = z.rem_euclid(146_097);
    let yoe = (doe - doe / 1460 + doe / 36_524 - doe / 146_096) / 365;
    let y = yoe + era * 400;
    let doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    let mp = (5 * doy + 2) / 153;
    let d = (doy - (153 * mp + 2) / 5 + 1) as u32;
    let m = if mp < 10 { mp + 3 } else { mp - 9 } as u32;
    (if m <= 2 { y + 1 } else { y }, m, d)
}

/// Days from 1970-01-01 to the given date.
fn days_from_civil(year: i64, month: u32, day: u32) -> i64 {
    let y = if month <= 2 { year - 1 } else { year };
    let era = y.div_euclid(400);
    let yoe = y.rem_euclid(400);
    let m = month as i64;
    let doy = (153 * (if m > 2 { m - 3 } else { m + 9 }) + 2) / 5 + day as i64 - 1;
    let doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    era * 146_097 + doe - 719_468
}

/// Formats `moment` as Python's `datetime.now().strftime(format)` does: the
/// usual directives, glibc's `%-d` form without padding, an empty time
/// zone (the time is naive), and anything unknown written as it stands.
pub(super) fn strftime(moment: &Moment, format: &str) -> String {
    let m = moment;
    let mut out = String::new();
    let mut chars = format.chars().peekable();
    while let Some(c) = chars.next() {
        if c != '%' {
            out.push(c);
            continue;
        }
        let padded = chars.next_if_eq(&'-').is_none();
        let Some(directive) = chars.next() else {
            out.push('%');
            break;
        };
        let number = |n: u32, width: usize| {
            if padded {
                format!("{n:0width$}")
            } else {
                n.to_string()
            }
        };
        let hour12 = if m.hour.is_multiple_of(12) {
            12
        } else {
            m.hour % 12
        };
        let text = match directive {
            'Y' => m.year.to_string(),
            'y' => number(m.year.rem_euclid(100) as u32, 2),
            'C' => number(m.year.div_euclid(100) as u32, 2),
            'm' => number(m.month, 2),
            'd' => number(m.day, 2),
            'e' if padded => format!("{:>2}", m.day),
            'e' => m.day.to_string(),
            'j' => number(m.year_day, 3),
            'H' => number(m.hour, 2),
            'I' => number(hour12, 2),
            'M' => number(m.minute, 2),
            'S' => number(m.second, 2),
            'f' => "000000".into(),
            'p' => (if m.hour < 12 { "AM" } else { "PM" }).into(),
            'B' => MONTHS[m.month as usize - 1].into(),
            'b' | 'h' => MONTHS[m.month as usize - 1][..3].into(),
            'A' => WEEKDAYS[m.weekday as usize].into(),
            'a' => WEEKDAYS[m.weekday as usize][..3].into(),
            'w' => m.weekday.to_string(),
            'u' => (if m.weekday == 0 { 7 } else { m.weekday }).to_string(),
            'F' => strftime(m, "%Y-%m-%d"),
            'D' | 'x' => strftime(m, "%m/%d/%y"),
            'T' | 'X' => strftime(m, "%H:%M:%S"),
            'R' => strftime(m, "%H:%M"),
            'c' => strftime(m, "%a %b %e %H:%M:%S %Y"),
            'n' => "\n".into(),
            't' => "\t".into(),
            '%' => "%".into(),
            'Z' | 'z' => String::new(),
            other => {
                let mut kept = String::from("%");
                if !padded {
                    kept.push('-');
                }
                kept.push(other);
                kept
            }
        };
        out.push_str(&text);
    }
    out
}

#[cfg(test)]
mod tests {
    use super::*;

    #[test]
    fn calendar_days() {
        assert_eq!(civil_from_days(0), (1970, 1, 1));
        assert_eq!(civil_from_days(19_723), (2024, 1, 1));
        assert_eq!(civil_from_days(-1), (1969, 12, 31));
        for days in [-800_000, -1, 0, 59, 19_723, 20_000, 2_932_896] {
            let (y, m, d) = civil_from_days(days);
            assert_eq!(days_from_civil(y, m, d), days);
        }
    }

    #[test]
    fn python_forms() {
        // 2024-07-26 14:05:09, a Friday.
        let moment = Moment::at(days_from_civil(2024, 7, 26) * 86_400 + 14 * 3600 + 5 * 60 + 9);
        let cases = [
            ("%d %b %Y", "26 Jul 2024"),
            ("%Y-%m-%d", "2024-07-26"),
            ("%B %d, %Y", "July 26, 2024"),
            ("%A %a %w %u", "Friday Fri 5 5"),
            ("%H:%M:%S %I %p", "14:05:09 02 PM"),
            ("%j %y %C", "208 24 20"),
            ("%F %T %R %D", "2024-07-26 14:05:09 14:05 07/26/24"),
            ("%-d/%-m %e|%Z%z", "26/7 26|"),
            ("100%% %Q %", "100% %Q %"),
        ];
        for (format, expected) in cases {
            assert_eq!(strftime(&moment, format), expected, "{format}");
        }
        let new_year = Moment::at(days_from_civil(2025, 1, 5) * 86_400);
        assert_eq!(
            strftime(&new_year, "%e %-j %j %I%p %a"),
            " 5 5 005 12AM Sun"
        );
    }

    #[test]
    fn now_is_a_real_date() {
        let now = Moment::now();
        assert!(now.year >= 2024 && (1..=12).contains(&now.month), "{now:?}");
        assert!((1..=31).contains(&now.day) && (1..=366).contains(&now.year_day));
    }
}
