-- The chosen units. An empty text means all of them.
({unit:String} = '' OR sn = {unit:String})
    AND ({site:String} = '' OR sn IN (SELECT sn FROM fleet.units WHERE site = {site:String}))
